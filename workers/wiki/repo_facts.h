// The host module `repo_facts`: replacing a file in one step, and the content hash of a page.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "workers/wiki/types.h"

namespace tolbarrow::workers::wiki::repo_facts {

// Every service may raise; the module catches nothing of them, so the error reaches the caller of
// the refresh unchanged. Services are called on the caller's thread, one at a time.

struct Module {
  // `_atomic_write(path, content)`: replaces the file's content as one step, so that a reader sees
  // the old content or the new, never a mix. `content` is UTF-8.
  std::function<void(const std::filesystem::path&, const std::string&)> atomic_write;
  // `_text_hash(text)`: a page text's content hash, in the form the store keeps.
  std::function<HostValue(const std::string&)> text_hash;
};

}  // namespace tolbarrow::workers::wiki::repo_facts
