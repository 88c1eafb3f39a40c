#include <gtest/gtest.h>

#include "hosts/memory/memory_host.h"
#include "tests/temp_dir.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::hosts::memory {
namespace {

using Calls = std::vector<std::string>;

Record anchored_f(Line start, Line end, Line old_start, Line old_end) {
  return {{"path", "src/a.py"},   {"line_start", start}, {"line_end", end},
          {"symbol", "a.f"},      {"name", "f"},         {"symbol_start", old_start},
          {"symbol_end", old_end}};
}

class RefreshCitations : public ::testing::Test {
 protected:
  RefreshCitations() {
    repo.files = {"src/a.py"};
    repo.symbols["src/a.py"] = {sym("a.f", 18, 30), sym("a.g", 40, 50)};
  }
  void add_page(const std::string& id, const std::string& rel_path, const std::string& text,
                Record citations, Record extra = Record::object()) {
    Record row = {{"page_id", id}, {"rel_path", rel_path}, {"citations", citations}};
    row.update(extra);
    repo.pages.push_back(row);
    if (!text.empty()) files()[wiki / rel_path] = text;
  }
  cr::CitationRefresh refresh(bool write = true) {
    return cr::refresh_citations(host.host(), repo, "main", wiki, "/repo", {.write = write});
  }
  MemoryFileSystem::Files& files() { return host.file_system.files; }
  // What the refresh wrote: each write, append and removal.
  std::vector<std::string> writes() const {
    std::vector<std::string> out;
    for (const auto& call : host.calls) {
      if (call.rfind("read ", 0) != 0) out.push_back(call);
    }
    return out;
  }

  MemoryHost host;
  MemoryRepository repo;
  const fs::path wiki = "/wiki";
};

TEST_F(RefreshCitations, OneCitationFollowsItsDeclarationThenNothingMoves) {
  const std::string text = "`f` is here " + cite("src/a.py", 10, 12) + "\n";
  add_page("p1", "p1.md", text, {anchored_f(10, 12, 8, 20)},
           {{"build_cache", {{"prose", "Also " + cite("src/a.py", 10, 12)}, {"n", "é"}}},
            {"content_hash", "old"}});
  files()[wiki / "digests.json"] =
      ("{\n    \"p1\": {\"citations\": [{\"path\": \"src/a.py\", \"line_start\": \"10\", "
       "\"line_end\": 12, \"x\": 1}], \"summary\": \"s\"},\n    \"p9\": null\n}\n");

  const auto result = refresh();

  EXPECT_EQ(result, (cr::CitationRefresh{.repaired = 1, .pages_written = 1}));
  const std::string new_text = "`f` is here " + cite("src/a.py", 20, 22) + "\n";
  EXPECT_EQ(files()[wiki / "p1.md"], new_text);
  ASSERT_EQ(repo.updates.size(), 1u);
  const PageUpdate& update = repo.updates[0].update;
  EXPECT_EQ(repo.updates[0].page_id, "p1");
  EXPECT_EQ(update.citations, std::vector<Record>{anchored_f(20, 22, 18, 30)});
  EXPECT_EQ(update.content_hash, repo.text_hash(new_text));
  EXPECT_EQ(cr::detail::dump_one_line(*update.build_cache),
            R"j({"prose": "Also (src/a.py#L20-L22)", "n": "é"})j");
  EXPECT_EQ(update.moves.size(), 1u);
  EXPECT_EQ(files()[wiki / "digests.json"],
            "{\n  \"p1\": {\n    \"citations\": [\n      {\n        \"path\": \"src/a.py\",\n"
            "        \"line_start\": 20,\n        \"line_end\": 22,\n        \"x\": 1\n      }\n"
            "    ],\n    \"summary\": \"s\"\n  },\n  \"p9\": null\n}");
  // The digest's change is journaled before the page is written, and the journal removed once the
  // digest file holds it.
  EXPECT_EQ(writes(), (Calls{"append .digests-pending.json", "write p1.md", "write digests.json",
                             "remove .digests-pending.json"}));

  // The store kept what it was given: a second refresh finds everything in place.
  EXPECT_EQ(refresh(), cr::CitationRefresh());
  EXPECT_EQ(writes().size(), 4u);
  EXPECT_EQ(repo.updates.size(), 1u);
}

TEST_F(RefreshCitations, ReportOnlyFindsWhatWritingFindsAndWritesNothing) {
  add_page("moves", "moves.md",
           "`f` " + cite("src/a.py", 10, 12) + " gone " + cite("src/a.py", 60, 60),
           {anchored_f(10, 12, 8, 20),
            {{"path", "src/a.py"},
             {"line_start", 60},
             {"line_end", 60},
             {"symbol", "a.h"},
             {"name", "h"}}});
  // Only gains an anchor: a legacy stored citation whose lines stay.
  add_page("anchors", "sub/anchors.md", "`g` " + cite("src/a.py", 41, 42),
           {{{"path", "src/a.py"}, {"line_start", 41}, {"line_end", 42}}},
           {{"content_hash", "kept"}});
  add_page("no-file", "missing.md", "", Record::array());
  add_page("dir", "sub", "", Record::array());
  host.file_system.directories.insert(wiki / "sub");
  repo.pages.push_back({{"page_id", "no-path"}, {"rel_path", nullptr}});
  const std::vector<Record> pages_before = repo.pages;

  const auto report = refresh(false);
  EXPECT_EQ(report.repaired, 0);
  EXPECT_EQ(report.pages_written, 0);
  EXPECT_EQ(report.moved, (nlohmann::ordered_map<std::string, std::int64_t>{{"moves", 1}}));
  EXPECT_EQ(
      report.lost,
      (std::vector<Record>{
          {{"page_id", "moves"}, {"path", "src/a.py"}, {"lines", "L60-L60"}, {"name", "h"}}}));
  EXPECT_TRUE(writes().empty());
  EXPECT_TRUE(repo.updates.empty());
  EXPECT_EQ(repo.pages, pages_before);

  const auto written = refresh();
  EXPECT_EQ(written.lost, report.lost);
  EXPECT_EQ(written.unrepairable, report.unrepairable);
  EXPECT_TRUE(written.moved.empty());
  EXPECT_EQ(written.repaired, 1);
  // The anchors-only page: record stored with its own hash, file untouched, digests created
  // for the page with moves only (and holding nothing, as there was no digest file).
  ASSERT_EQ(repo.updates.size(), 2u);
  EXPECT_FALSE(repo.updates[1].update.content_hash.has_value());
  EXPECT_EQ(repo.pages[1]["content_hash"], "kept");
  EXPECT_TRUE(repo.updates[1].update.moves.empty());
  EXPECT_FALSE(repo.updates[1].update.build_cache.has_value());
  EXPECT_EQ(writes(), (Calls{"write moves.md", "write digests.json"}));
  EXPECT_EQ(files()[wiki / "digests.json"], "{}");
}

TEST_F(RefreshCitations, CrLfPagesAreReadAndWrittenWithLineFeeds) {
  add_page("p", "p.md", "a\r\n`f` " + cite("src/a.py", 10, 12) + "\rb\r\n",
           {anchored_f(10, 12, 8, 20)});
  refresh();
  const std::string expected = "a\n`f` " + cite("src/a.py", 20, 22) + "\nb\n";
  EXPECT_EQ(files()[wiki / "p.md"], expected);
  EXPECT_EQ(repo.updates[0].update.content_hash, repo.text_hash(expected));
}

TEST_F(RefreshCitations, AnErrorKeepsWhatWasWrittenAndSkipsTheDigestFile) {
  add_page("first", "first.md", "`f` " + cite("src/a.py", 10, 12), {anchored_f(10, 12, 8, 20)});
  add_page("second", "second.md", "`f` " + cite("src/a.py", 10, 12), {anchored_f(10, 12, 8, 20)});
  repo.fail_update = "second";
  EXPECT_THROW(refresh(), std::runtime_error);
  EXPECT_EQ(writes(), (Calls{"write first.md", "write second.md"}));
  EXPECT_EQ(repo.updates.size(), 1u);
  EXPECT_FALSE(files().count(wiki / "digests.json"));
}

TEST_F(RefreshCitations, EveryPagesMovesReachTheDigestReadOnce) {
  add_page("one", "one.md", "`f` " + cite("src/a.py", 10, 12), {anchored_f(10, 12, 8, 20)});
  add_page("two", "two.md", "`f` " + cite("src/a.py", 12, 13), {anchored_f(12, 13, 8, 20)});
  files()[wiki / "digests.json"] =
      R"({"one": {"citations": [{"path": "src/a.py", "line_start": 10, "line_end": 12}]},)"
      R"( "two": {"citations": [{"path": "src/a.py", "line_start": 12, "line_end": 13}]}})";
  refresh();
  EXPECT_EQ(
      Record::parse(files()[wiki / "digests.json"]),
      Record::parse(
          R"({"one": {"citations": [{"path": "src/a.py", "line_start": 20, "line_end": 22}]},)"
          R"( "two": {"citations": [{"path": "src/a.py", "line_start": 22, "line_end": 23}]}})"));
  EXPECT_EQ(std::count(host.calls.begin(), host.calls.end(), "read digests.json"), 1);
}

TEST_F(RefreshCitations, AFailedPageWriteLeavesTheDigestAndStoreAlone) {
  add_page("p", "p.md", "`f` " + cite("src/a.py", 10, 12), {anchored_f(10, 12, 8, 20)});
  host.file_system.fault = [](const std::string& operation, const fs::path& path) {
    if (operation == "write" && path.filename() == "p.md") {
      throw fs::filesystem_error("cannot write", path,
                                 std::make_error_code(std::errc::no_space_on_device));
    }
  };
  EXPECT_THROW(refresh(), fs::filesystem_error);
  EXPECT_EQ(files()[wiki / "p.md"], "`f` " + cite("src/a.py", 10, 12));
  EXPECT_TRUE(repo.updates.empty());
  EXPECT_FALSE(files().count(wiki / "digests.json"));
}

TEST_F(RefreshCitations, APageThatIsNotUtf8IsAnErrorNamingIt) {
  add_page("bad", "bad.md", "caf\xE9 " + cite("src/a.py", 10, 12), Record::array());
  try {
    refresh(false);
    FAIL() << "no error";
  } catch (const InvalidUtf8& e) {
    EXPECT_NE(std::string(e.what()).find("bad.md"), std::string::npos) << e.what();
    EXPECT_EQ(e.offset(), 3u);
  }
}

TEST(ReadDigests, AnythingButAJsonObjectIsAnEmptyMap) {
  testing::TempDir dir;
  RealFileSystem real;
  const std::pair<std::string, std::string> cases[] = {
      {"[1]", "{}"},
      {"\"text\"", "{}"},
      {"3", "{}"},
      {"{nope", "{}"},
      {"\xEF\xBB\xBF{\"a\": 1}", "{}"},
      {"{\"a\": \"\xFF\"}", "{}"},
      {"{\"b\": 1, \"a\": 2}", R"({"b":1,"a":2})"},
  };
  for (const auto& [content, expected] : cases) {
    dir.write("digests.json", content);
    EXPECT_EQ(cr::detail::read_digests(real, dir / "digests.json").dump(), expected) << content;
  }
  EXPECT_EQ(cr::detail::read_digests(real, dir / "absent.json"), Record::object());
  EXPECT_EQ(cr::detail::read_digests(real, dir.path()), Record::object());  // a directory
}

// The digest map a writing refresh reads is the one the library's own parser builds (a key given
// twice keeps its first place and takes its last value, at any depth); a number that would not
// be written back exactly gives none.
TEST(ReadDigestsToRewrite, BuildsTheMapTheLibraryParses) {
  std::vector<std::string> calls;
  MemoryFileSystem memory(calls);
  const fs::path path = "/w/digests.json";
  const std::string parsed[] = {
      R"({"p1": {"citations": [1]}, "p2": 2, "p1": 3, "p3": {"x": 1}})",
      R"({"b": {"x": 1, "x": {"y": [1, {"z": 2, "z": 3}]}}, "a": [], "b2": {}})",
      R"({"a": {"b": 1}, "c": [{"d": 1}], "a": {"c": 2}})",
      R"({"a": null, "b": true, "c": "t\u00e9", "d": -5, "e": 18446744073709551615, "f": 1.5})",
      R"({})",
      R"([{"a": 1, "a": 2}])",
      R"({"a": 1, )",
  };
  for (const std::string& content : parsed) {
    memory.files[path] = content;
    std::string why;
    const auto digests = cr::detail::read_digests_to_rewrite(memory, path, why);
    ASSERT_TRUE(digests) << content;
    const Record expected = Record::parse(content, nullptr, /*allow_exceptions=*/false);
    EXPECT_EQ(digests->dump(), expected.is_object() ? expected.dump() : "{}") << content;
    EXPECT_EQ(why, "") << content;
  }
  const std::pair<std::string, std::string> inexact[] = {
      {R"({"a": {"b": [0.1000000000000000055511151231257827]}})",
       "0.1000000000000000055511151231257827"},
      {R"({"a": 1, "b": 18446744073709551616})", "18446744073709551616"},
      {R"({"a": 1e400})", "1e400"},
  };
  for (const auto& [content, number] : inexact) {
    memory.files[path] = content;
    std::string why;
    EXPECT_FALSE(cr::detail::read_digests_to_rewrite(memory, path, why)) << content;
    EXPECT_EQ(why, "the number " + number + " would not be written back exactly");
  }
}

TEST(MoveDigestCitations, MovesMatchingCitationsOnly) {
  Moves moves;
  moves.set({"a", 12, 14}, {20, 22});
  moves.set({"", 0, 0}, {1, 1});
  Record digest = Record::parse(R"({"citations": [
      {"path": "a", "line_start": "12", "line_end": 14, "k": 1},
      {"path": "a", "line_start": 12, "line_end": 14},
      {"path": "a", "line_start": 1, "line_end": 2},
      {}], "other": "o"})");
  cr::detail::move_digest_citations(&digest, moves);
  EXPECT_EQ(digest.dump(), R"({"citations":[{"path":"a","line_start":20,"line_end":22,"k":1},)"
                           R"({"path":"a","line_start":20,"line_end":22},)"
                           R"({"path":"a","line_start":1,"line_end":2},)"
                           R"({"line_start":1,"line_end":1}],"other":"o"})");
  for (const char* ignored : {"null", "[1]", "{\"citations\": []}", "{\"citations\": false}"}) {
    Record value = Record::parse(ignored);
    cr::detail::move_digest_citations(&value, moves);
    EXPECT_EQ(value, Record::parse(ignored));
  }
  cr::detail::move_digest_citations(nullptr, moves);
  for (const char* bad : {"{\"citations\": \"ab\"}", "{\"citations\": [1]}",
                          "{\"citations\": [{\"line_start\": \"x\"}]}"}) {
    Record value = Record::parse(bad);
    EXPECT_THROW(cr::detail::move_digest_citations(&value, moves), std::invalid_argument) << bad;
  }
}

// A host that sees every call (Host::every_call) gets what the fast path gives: the same result,
// page files, digest file and store, in both modes.
TEST(EveryCall, GivesWhatTheFastPathGives) {
  struct Outcome {
    cr::CitationRefresh result;
    MemoryFileSystem::Files files;
    std::vector<Record> pages;
  };
  const auto run = [](bool every_call, bool write) {
    MemoryHost host;
    MemoryRepository repo;
    const fs::path wiki = "/wiki";
    repo.files = {"src/a.py", "src/b.py"};
    repo.symbols["src/a.py"] = {sym("a.f", 18, 30), sym("a.g", 40, 50), sym("a.load", 60, 70)};
    host.line_counts_by_path["src/b.py"] = 5;
    const auto page = [&](const std::string& id, const std::string& text, Record citations) {
      repo.pages.push_back({{"page_id", id}, {"rel_path", id + ".md"}, {"citations", citations}});
      host.file_system.files[wiki / (id + ".md")] = text;
    };
    page("moves", "`f` " + cite("src/a.py", 10, 12) + " and " + cite("src/a.py", 10, 12),
         {anchored_f(10, 12, 8, 20)});
    page("legacy", "The `load` call " + cite("src/a.py", 2, 3) + " and " + cite("src/a.py", 0, 2),
         Record::array());
    page("anchors", "`g` " + cite("src/a.py", 41, 42),
         {{{"path", "src/a.py"}, {"line_start", 41}, {"line_end", 42}}});
    page("lost", "gone " + cite("src/b.py", 7, 9) + " " + cite("src/c.py", 1, 2), Record::array());
    host.file_system.files[wiki / "digests.json"] =
        R"({"moves": {"citations": [{"path": "src/a.py", "line_start": 10, "line_end": 12}]},)"
        R"( "legacy": {"citations": [{"path": "src/a.py", "line_start": 2, "line_end": 3}]}})";
    cr::Host plain = host.host();
    plain.every_call = every_call;
    Outcome out;
    out.result = cr::refresh_citations(plain, repo, "main", wiki, "/repo", {.write = write});
    out.files = host.file_system.files;
    out.pages = repo.pages;
    return out;
  };
  for (const bool write : {false, true}) {
    const Outcome fast = run(false, write), every = run(true, write);
    EXPECT_EQ(every.result, fast.result) << "write " << write;
    EXPECT_EQ(every.files, fast.files) << "write " << write;
    EXPECT_EQ(every.pages, fast.pages) << "write " << write;
    EXPECT_EQ(fast.result.repaired + static_cast<std::int64_t>(fast.result.moved.size()), 2);
  }
}

// A history that carries the stored citations it was given, by page and stored key.
class FixedHistory : public History {
 public:
  std::map<std::string, Record> carries;  // by the question as `asked` words it
  std::vector<std::string> asked;         // "page path Lx-Ly" of each question
  const Record* carried(std::string_view page_id, const Record& cited) override {
    const CitationKey key = cr::detail::stored_key(cited);
    asked.push_back(std::string(page_id) + " " + key.path + " L" + std::to_string(key.start) +
                    "-L" + std::to_string(key.end));
    auto it = carries.find(asked.back());
    return it == carries.end() ? nullptr : &it->second;
  }
};

// One decision moves a carried citation: its link (the path too, for a renamed file), its digest
// entry, the journal line written before the page, and its record, as it would any other move.
TEST(RefreshWithHistory, ACarriedCitationMovesWithItsLinkDigestAndRecord) {
  const fs::path wiki = "/wiki";
  struct Case {
    const char* name;
    std::optional<Record> carried;  // what the history says of f's citation; nullopt: nothing
    std::string page_after;
    std::string digest_path, journal;  // the digest's citation after; the journal's change line
    std::vector<cr::CarriedMove> listed;
    std::int64_t lost = 0;
  };
  Record in_b = anchored_f(31, 32, 25, 40);
  in_b["path"] = "src/b.py";
  Record in_b_gone = in_b;
  in_b_gone["symbol"] = "b.none";
  in_b_gone["name"] = "none";
  const Case cases[] = {
      {"lines within the file",
       anchored_f(24, 25, 18, 30),
       cite("src/a.py", 24, 25),
       "src/a.py",
       R"([0,"src/a.py",10,12,24,25])",
       {{"p1", {"src/a.py", 10, 12}, Move(24, 25)}}},
      {"a renamed file",
       in_b,
       cite("src/b.py", 31, 32),
       "src/b.py",
       R"([0,"src/a.py",10,12,31,32,"src/b.py"])",
       {{"p1", {"src/a.py", 10, 12}, Move(31, 32, "src/b.py")}}},
      {"nothing to say: found by its declaration",
       std::nullopt,
       cite("src/a.py", 20, 22),
       "src/a.py",
       R"([0,"src/a.py",10,12,20,22])",
       {}},
      {"carried where its declaration is not",
       in_b_gone,
       cite("src/a.py", 10, 12),
       "src/a.py",
       "",
       {},
       1},
  };
  for (const bool write : {true, false}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(std::string(c.name) + (write ? ", writing" : ", reporting"));
      MemoryHost host;
      MemoryRepository repo;
      auto& files = host.file_system.files;
      repo.files = {"src/a.py", "src/b.py"};
      repo.symbols["src/a.py"] = {sym("a.f", 18, 30)};
      repo.symbols["src/b.py"] = {sym("a.f", 25, 40)};
      const std::string text = "`f` " + cite("src/a.py", 10, 12) + "\n";
      repo.pages.push_back(
          {{"page_id", "p1"}, {"rel_path", "p1.md"}, {"citations", {anchored_f(10, 12, 8, 20)}}});
      files[wiki / "p1.md"] = text;
      // As the refresh writes the file, so that it is moved in its text.
      files[wiki / "digests.json"] =
          Record::parse(
              R"({"p1": {"citations": [{"path": "src/a.py", "line_start": 10, "line_end": 12}]}})")
              .dump(2);
      FixedHistory history;
      if (c.carried) history.carries["p1 src/a.py L10-L12"] = *c.carried;
      // The journal is removed at the end: what it holds when the page is written.
      std::string journal;
      host.file_system.fault = [&](const std::string& operation, const fs::path& path) {
        if (operation == "write" && path.filename() == "p1.md") {
          journal = files[wiki / std::string(cr::DIGEST_JOURNAL)];
        }
      };
      cr::Host with_history = host.host();
      with_history.history = &history;

      const auto result =
          cr::refresh_citations(with_history, repo, "main", wiki, "/repo", {.write = write});
      EXPECT_EQ(history.asked, Calls{"p1 src/a.py L10-L12"});
      EXPECT_EQ(result.carried, c.listed);
      EXPECT_EQ(result.unrepairable, c.lost);
      if (!write) {
        EXPECT_EQ(files[wiki / "p1.md"], text);
        EXPECT_EQ(result.moved.size(), c.lost ? 0u : 1u);
        EXPECT_TRUE(repo.updates.empty());
        continue;
      }
      EXPECT_EQ(files[wiki / "p1.md"], "`f` " + c.page_after + "\n");
      const Record digests = Record::parse(files[wiki / "digests.json"]);
      EXPECT_EQ(digests["p1"]["citations"][0]["path"], c.digest_path);
      if (c.journal.empty()) {
        EXPECT_EQ(journal, "");
      } else {
        EXPECT_NE(journal.find("\"citations\":[" + c.journal + "]"), std::string::npos) << journal;
      }
      if (!c.lost) {
        ASSERT_EQ(repo.updates.size(), 1u);
        const Record& record = repo.updates[0].update.citations.at(0);
        EXPECT_EQ(record["path"], c.digest_path);
        EXPECT_EQ(cite(record["path"], record["line_start"], record["line_end"]), c.page_after);
      }
    }
  }
}

}  // namespace
}  // namespace tolbarrow::hosts::memory
