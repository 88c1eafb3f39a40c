// The wiki's "digests.json" under faults, through the core with the in-memory host: it must agree
// with the pages after an interrupted refresh and the next one, and a refresh must never replace
// what it could not read or carry exactly.
#include <gtest/gtest.h>

#include "hosts/memory/memory_host.h"

namespace tolbarrow::hosts::memory {
namespace {

Record anchored(const std::string& fqn, Line start, Line end) {
  return {{"path", "src/a.py"},    {"line_start", start},   {"line_end", end},  {"symbol", fqn},
          {"name", fqn.substr(2)}, {"symbol_start", start}, {"symbol_end", end}};
}

// Three pages, each citing two declarations of src/a.py that have moved down by 10 lines, and
// citing them at the same lines: a.f's new lines (20-22) are a.g's old ones, so a digest citation
// moved twice ends up at the wrong lines.
struct Wiki {
  Wiki() {
    repo.files = {"src/a.py"};
    repo.symbols["src/a.py"] = {sym("a.f", 20, 22), sym("a.g", 30, 32)};
    Record digests = Record::object();
    for (const char* id : {"p1", "p2", "p3"}) {
      repo.pages.push_back({{"page_id", id},
                            {"rel_path", std::string(id) + ".md"},
                            {"citations", {anchored("a.f", 10, 12), anchored("a.g", 20, 22)}}});
      files()[page(id)] = "`f` " + cite("src/a.py", 10, 12) + " `g` " + cite("src/a.py", 20, 22);
      digests[id] = {{"citations",
                      {{{"path", "src/a.py"}, {"line_start", 10}, {"line_end", 12}},
                       {{"path", "src/a.py"}, {"line_start", 20}, {"line_end", 22}}}}};
    }
    files()[digests_file] = digests.dump(2);
  }
  cr::CitationRefresh refresh() {
    return cr::refresh_citations(host.host(), repo, "main", wiki, "/repo");
  }
  MemoryFileSystem::Files& files() { return host.file_system.files; }
  fs::path page(const std::string& id) const { return wiki / (id + ".md"); }
  // Fails the `nth` operation `operation` on a file named `name` with an I/O error.
  void fail(std::string operation, std::string name, int nth = 1) {
    host.file_system.fault = [=, seen = 0](const std::string& op, const fs::path& path) mutable {
      if (op == operation && path.filename() == name && ++seen == nth) {
        throw fs::filesystem_error("injected", path, std::make_error_code(std::errc::io_error));
      }
    };
  }
  // Each page's digest lines and the lines its text cites, in order.
  std::vector<std::pair<std::vector<Line>, std::vector<Line>>> digest_and_page_lines() {
    const Record digests = Record::parse(files()[digests_file]);
    std::vector<std::pair<std::vector<Line>, std::vector<Line>>> out;
    for (const char* id : {"p1", "p2", "p3"}) {
      auto& [digest, cited] = out.emplace_back();
      for (const Record& c : digests[id]["citations"]) digest.push_back(c["line_start"]);
      const std::string& text = files()[page(id)];
      for (auto at = text.find("#L"); at != std::string::npos; at = text.find("#L", at + 1)) {
        cited.push_back(std::stoll(text.substr(at + 2)));
      }
    }
    return out;
  }

  MemoryHost host;
  MemoryRepository repo;
  const fs::path wiki = "/wiki";
  const fs::path digests_file = wiki / "digests.json";
  const fs::path journal = wiki / ".digests-pending.json";
};

// A refresh that fails part way and then runs again leaves each digest citing what its page cites,
// the journal gone, and nothing more to do.
TEST(DigestFile, AgreesWithThePagesAfterAFailedRefreshAndTheNext) {
  struct Case {
    std::string operation, name;
    int nth, failed_runs;
    bool torn = false;  // the last journal line lost its end, as in a crash inside the append
  };
  for (const Case& c : {
           Case{"write", "p2.md", 1, 1},         // p1 written, p2 not
           Case{"write", "p3.md", 1, 1},         // p1 and p2 written
           Case{"write", "digests.json", 1, 1},  // every page written
           Case{"write", "p3.md", 1, 1, true},
           Case{"append", ".digests-pending.json", 2, 1},  // p1 written, p2's journal line not
           Case{"remove", ".digests-pending.json", 1, 1},  // the digest file written too
           Case{"remove", ".digests-pending.json", 1, 2},  // and the next run stops there too
       }) {
    SCOPED_TRACE(c.operation + " " + c.name + " #" + std::to_string(c.nth) + " in " +
                 std::to_string(c.failed_runs) + " runs" + (c.torn ? ", torn" : ""));
    Wiki fresh;  // each case from the same start
    for (int run = 0; run < c.failed_runs; ++run) {
      fresh.fail(c.operation, c.name, c.nth);
      EXPECT_THROW(fresh.refresh(), fs::filesystem_error);
    }
    if (c.torn) fresh.files()[fresh.journal].resize(fresh.files()[fresh.journal].size() - 9);
    fresh.host.file_system.fault = nullptr;
    fresh.refresh();
    for (const auto& [digest, page] : fresh.digest_and_page_lines()) {
      EXPECT_EQ(digest, (std::vector<Line>{20, 30}));
      EXPECT_EQ(page, (std::vector<Line>{20, 30}));
    }
    EXPECT_FALSE(fresh.files().count(fresh.journal));
    const std::string settled = fresh.files()[fresh.digests_file];
    EXPECT_EQ(fresh.refresh(), cr::CitationRefresh());
    EXPECT_EQ(fresh.files()[fresh.digests_file], settled);
  }
}

TEST(DigestFile, AStoreFailureLeavesDigestsAndPagesAgreeing) {
  Wiki w;
  w.repo.fault = [seen = 0](const std::string& service) mutable {
    if (service == "update_wiki_page_citations" && ++seen == 2) throw std::runtime_error("busy");
  };
  EXPECT_THROW(w.refresh(), std::runtime_error);
  w.repo.fault = nullptr;
  w.refresh();
  for (const auto& [digest, page] : w.digest_and_page_lines()) EXPECT_EQ(digest, page);
}

// What the refresh cannot read it does not replace: the refresh ends with the file's error, before
// any page is written.
TEST(DigestFile, AnUnreadableDigestFileEndsTheRefreshAndIsKept) {
  Wiki w;
  const std::string before = w.files()[w.digests_file];
  w.fail("read", "digests.json");
  EXPECT_THROW(w.refresh(), fs::filesystem_error);
  EXPECT_EQ(w.files()[w.digests_file], before);
  EXPECT_EQ(w.digest_and_page_lines()[0].second, (std::vector<Line>{10, 20}));
}

// A number the JSON library cannot carry exactly leaves the file as it was, said in one warning
// line naming it; the pages are still refreshed, and a journal left by an earlier refresh stays.
TEST(DigestFile, IsLeftAsItIsWhenANumberWouldNotBeWrittenBackExactly) {
  struct Case {
    std::string name, number;
  };
  for (const Case& c : {
           Case{"integer beyond 64 bits", "123456789012345678901234567890"},
           Case{"integer below -2^63", "-9223372036854775809"},
           Case{"float beyond a double", "0.1000000000000000055511151231257827"},
           Case{"float beyond range", "1e400"},
       }) {
    SCOPED_TRACE(c.name);
    Wiki fresh;
    const std::string content = R"({"p1": {"n": )" + c.number + R"(, "citations": []}})";
    fresh.files()[fresh.digests_file] = content;
    fresh.files()[fresh.journal] = "{}\n";
    EXPECT_EQ(fresh.refresh().pages_written, 3);
    EXPECT_EQ(fresh.files()[fresh.digests_file], content);
    EXPECT_TRUE(fresh.files().count(fresh.journal));
    EXPECT_EQ(fresh.host.log_lines,
              std::vector<std::string>{"warning: wiki citation refresh: /wiki/digests.json left as "
                                       "it is: the number " +
                                       c.number + " would not be written back exactly"});
  }
  // Numbers written back as they were read are no reason to leave the file.
  Wiki exact;
  exact.files()[exact.digests_file] =
      R"({"p1": {"n": [1.5e1, -0.25, 18446744073709551615, -9223372036854775808, 1e300]}})";
  exact.refresh();
  EXPECT_EQ(Record::parse(exact.files()[exact.digests_file])["p1"]["n"].dump(),
            "[15.0,-0.25,18446744073709551615,-9223372036854775808,1e+300]");
  EXPECT_TRUE(exact.host.log_lines.empty());
}

}  // namespace
}  // namespace tolbarrow::hosts::memory
