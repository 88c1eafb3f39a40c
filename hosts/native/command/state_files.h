// The files the command keeps beside the pages (the digest file, the anchors file) and the
// local store, looked at before anything is written: a file the command cannot read is the
// user's to mend, never replaced by a guess; the store is only a cache, rebuilt when unreadable.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/native/store.h"

namespace tolbarrow::hosts::native::command {

// Where `bytes` (a file of JSON) stops being JSON: "line L, column C: <what>", or "" when it is
// JSON. Not strict UTF-8 (a byte-order mark included) counts as not JSON.
std::string json_break(std::string_view bytes);

// Throws CommandError, one line naming the file and where it breaks, when the wiki's
// "digests.json" is there but is no JSON object, or its anchors file (`anchors_name`) is not
// JSON; or when either, or the digest journal, is a symbolic link that leads out of the wiki
// directory (the command writes them, and never through a link that leaves the wiki).
void check_state_files(const std::filesystem::path& wiki_dir, const std::string& anchors_name);

// The store at `db`. One that does not open as a database (not SQLite, damaged) is set aside as
// "<db>.unreadable" (its -wal and -shm files with it), `note` told so, and a new one made: the
// next sync rebuilds it from the anchors file and the pages. Any other failure (busy, newer
// schema, no permission) throws StoreError.
std::unique_ptr<SqliteStore> open_store(const std::filesystem::path& root,
                                        const std::filesystem::path& db,
                                        const std::function<void(const std::string&)>& note);

// Throws CommandError naming the folder when the wiki directory `wiki` leads outside the
// repository at `root` (canonical) once links are followed, or when the store `db` lies inside
// the wiki directory (it would be written among the pages).
void refuse_places(const std::filesystem::path& root, const std::filesystem::path& wiki,
                   const std::filesystem::path& db);

// Removes the temporary files that writes killed before their rename left (see
// SyncStats::leftovers); under the wiki's write lock, so that no write of another run is under
// way. One that cannot be removed is left for the next run.
void remove_leftovers(const std::vector<std::filesystem::path>& files);

// Whether the file at `db` is there and is no readable SQLite database.
bool store_unreadable(const std::filesystem::path& db);

}  // namespace tolbarrow::hosts::native::command
