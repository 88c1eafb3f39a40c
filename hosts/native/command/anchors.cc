#include "hosts/native/command/anchors.h"

#include <unordered_set>

#include "hosts/native/repo_paths.h"
#include "workers/wiki/text.h"

namespace tolbarrow::hosts::native::command {
namespace fs = std::filesystem;

std::optional<wiki::CitationKey> key_of(const wiki::Record& record) {
  if (!record.is_object()) return std::nullopt;
  auto path = record.find("path"), start = record.find("line_start"), end = record.find("line_end");
  if (path == record.end() || start == record.end() || end == record.end() || !path->is_string() ||
      !start->is_number_integer() || !end->is_number_integer()) {
    return std::nullopt;
  }
  return wiki::CitationKey{path->get<std::string>(), start->get<wiki::Line>(),
                           end->get<wiki::Line>()};
}

namespace {

// One JSON value on one line, with a space after each ':' and ','.
std::string one_line(const wiki::Record& value) {
  if (value.is_object()) {
    std::string out = "{";
    for (auto it = value.begin(); it != value.end(); ++it) {
      if (it != value.begin()) out += ", ";
      out += wiki::Record(it.key()).dump() + ": " + one_line(*it);
    }
    return out + "}";
  }
  if (value.is_array()) {
    std::string out = "[";
    for (std::size_t i = 0; i < value.size(); ++i) out += (i ? ", " : "") + one_line(value[i]);
    return out + "]";
  }
  return value.dump();
}

}  // namespace

Anchors parse_anchors(const std::string& bytes, const fs::path& file, OlderAnchors* older) {
  const std::size_t bad = wiki::first_invalid_utf8(bytes);
  if (bad != std::string::npos) {
    throw AnchorsError(file.string() + ": not valid UTF-8 at byte " + std::to_string(bad));
  }
  wiki::Record json;
  try {
    json = wiki::Record::parse(bytes);
  } catch (const wiki::Record::parse_error& e) {
    throw AnchorsError(file.string() + ": not valid JSON at byte " + std::to_string(e.byte) +
                       " (a merge conflict? run citation-refresh after resolving it)");
  }
  auto fail = [&](const std::string& what) { throw AnchorsError(file.string() + ": " + what); };
  if (!json.is_object()) fail("expected a JSON object");
  if (auto v = json.find("version"); v != json.end()) {
    if (!v->is_number_integer()) fail("\"version\" is not an integer");
    if (v->get<int>() > kAnchorsVersion) {
      fail("anchors file version " + std::to_string(v->get<int>()) + " is newer than version " +
           std::to_string(kAnchorsVersion) + " that this program knows");
    }
  }
  if (older != nullptr) {
    const auto version = json.find("version");
    const int number = version != json.end() ? version->get<int>() : 1;
    const auto marks = json.find("refreshed");
    *older = number < kAnchorsVersion || marks != json.end()
                 ? OlderAnchors{number, marks != json.end() ? *marks : wiki::Record()}
                 : OlderAnchors{};
  }
  Anchors anchors;
  auto pages = json.find("pages");
  if (pages == json.end()) return anchors;
  if (!pages->is_object()) fail("\"pages\" is not an object");
  for (auto page = pages->begin(); page != pages->end(); ++page) {
    if (!page->is_array()) fail("page \"" + page.key() + "\" is not a list of citations");
    std::vector<wiki::Record>& records = anchors[page.key()];
    for (const wiki::Record& record : *page) {
      if (!key_of(record)) {
        fail("page \"" + page.key() +
             "\": a citation without path, line_start and line_end: " + record.dump());
      }
      records.push_back(record);
    }
  }
  return anchors;
}

std::string dump_anchors(const std::vector<StoredPage>& pages, const wiki::Record& extra) {
  std::map<std::string, const StoredPage*> sorted;
  for (const StoredPage& page : pages) sorted.emplace(page.page_id, &page);
  AnchorsText text;
  for (const auto& [id, page] : sorted) text.add(*page);
  return std::move(text).take(extra);
}

AnchorsText::AnchorsText()
    : text_("{\n  \"version\": " + std::to_string(kAnchorsVersion) + ",\n  \"pages\": {") {}

void AnchorsText::add(const StoredPage& page) {
  text_ += empty_ ? "\n" : ",\n";
  empty_ = false;
  text_ += "    " + wiki::Record(page.page_id).dump() + ": [";
  for (std::size_t i = 0; i < page.citations.size(); ++i) {
    text_ += (i ? ",\n      " : "\n      ") + one_line(page.citations[i]);
  }
  text_ += page.citations.empty() ? "]" : "\n    ]";
}

std::string AnchorsText::rest(const wiki::Record& extra) const {
  std::string out = empty_ ? "}" : "\n  }";
  if (extra.is_object()) {
    for (auto it = extra.begin(); it != extra.end(); ++it) {
      out += ",\n  " + wiki::Record(it.key()).dump() + ": ";
      if (!it->is_object() || it->empty()) {
        out += one_line(*it);
        continue;
      }
      for (auto member = it->begin(); member != it->end(); ++member) {
        out += (member == it->begin() ? "{\n    " : ",\n    ") + wiki::Record(member.key()).dump() +
               ": " + one_line(*member);
      }
      out += "\n  }";
    }
  }
  return out + "\n}\n";
}

bool AnchorsText::is(std::string_view text, const wiki::Record& extra) const {
  return text.size() >= text_.size() && text.substr(0, text_.size()) == text_ &&
         text.substr(text_.size()) == rest(extra);
}

std::string AnchorsText::take(const wiki::Record& extra) && {
  text_ += rest(extra);
  return std::move(text_);
}

void seed_pages(SqliteStore& store, const std::string& branch, const Anchors& anchors,
                const std::string& hash) {
  std::vector<StoredPage> pages = store.pages(branch);
  std::unordered_set<std::string> known;
  for (StoredPage& page : pages) {
    known.insert(page.page_id);
    auto recorded = anchors.find(page.page_id);
    page.citations = recorded != anchors.end() ? recorded->second : std::vector<wiki::Record>();
    page.content_hash.reset();  // its records are no longer known to be its text's
  }
  for (const auto& [id, records] : anchors) {
    if (known.count(id)) continue;
    pages.push_back(StoredPage{.page_id = id, .rel_path = id + ".md", .citations = records});
  }
  store.replace_pages(branch, pages, hash);
}

}  // namespace tolbarrow::hosts::native::command
