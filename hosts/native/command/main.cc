// citation-refresh: keeps the code citations of a repository's markdown docs pointing at the code
// they cite. See README.md next to this file.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>

#include "hosts/native/command/run.h"
#include "hosts/native/command/terminal.h"

namespace {

namespace command = tolbarrow::hosts::native::command;

constexpr const char* kDescription =
    "Keeps the code citations of a repository's markdown docs (*.md, *.markdown,\n"
    "*.mdx), links such as [parse](/src/parse.py#L10-L12) from the repository root or\n"
    "[parse](../src/parse.py#L10) from the page's folder (inline or by reference),\n"
    "pointing at the declarations they cite.\n"
    "\n"
    "Each run reads the pages of the wiki directory, indexes the repository with\n"
    "universal-ctags, moves every citation whose declaration moved, and reports the\n"
    "citations whose declaration is gone (lost) or whose file is not in the\n"
    "repository (missing file); it never removes one. It keeps each citation's\n"
    "declaration in <wiki>/.citation-anchors.json: commit it with the docs, so that\n"
    "--check in a fresh clone (CI) knows what each citation cites.\n";

constexpr const char* kFooter =
    "Exit codes: 0 the citations are current, or were written (a writing run exits 0\n"
    "even when citations are lost or missing: it reports them); 1 with --check, when a\n"
    "citation would move (or follow a renamed file), is lost, cites a missing file, or is\n"
    "new and its prose names a declaration that does not hold its lines;\n"
    "2 an error. --check also exits 1 for a citation that the anchors file does not\n"
    "know yet (commit the anchors file a writing run leaves).\n"
    "\n"
    "Workflow: run citation-refresh after changing code, review and commit the pages\n"
    "and the anchors file; run citation-refresh --check in CI or pre-commit.";

std::string plural(std::int64_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

struct Finding {
  std::string page_id;
  std::string text;
};

// Lost and missing citations and new ones whose prose names other code, in page order; within a
// page, lost ones first, each kind in text order.
std::vector<Finding> findings(const command::Outcome& outcome) {
  std::vector<Finding> out;
  for (const auto& lost : outcome.result.lost) {
    const std::string reason = lost.value("reason", "");
    out.push_back({lost.value("page_id", ""),
                   lost.value("page_id", "") + ": " + lost.value("path", "") + " " +
                       lost.value("lines", "") + " (" +
                       (reason.empty() ? lost.value("name", "") : "lost: " + reason) + ")"});
  }
  for (const auto& missing : outcome.missing) {
    out.push_back({missing.page_id, missing.page_id + ": " + missing.path + " " + missing.lines +
                                        " (missing file)"});
  }
  for (const auto& new_one : outcome.unanchored) {
    out.push_back({new_one.page_id, new_one.page_id + ": " + new_one.path + " " + new_one.lines +
                                        " (not anchored yet; run citation-refresh)"});
  }
  for (const auto& m : outcome.misnamed) {
    out.push_back({m.page_id, m.page_id + ":" + std::to_string(m.page_line) + ": " + m.link +
                                  ": the prose names `" + m.named + "`, at " + m.named_at +
                                  ", which does not hold these lines (anchored as written)"});
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const Finding& a, const Finding& b) { return a.page_id < b.page_id; });
  return out;
}

nlohmann::ordered_json to_json(const command::Outcome& outcome) {
  const auto& r = outcome.result;
  nlohmann::ordered_json missing = nlohmann::ordered_json::array();
  for (const auto& m : outcome.missing) {
    missing.push_back({{"page_id", m.page_id}, {"path", m.path}, {"lines", m.lines}});
  }
  nlohmann::ordered_json unanchored = nlohmann::ordered_json::array();
  for (const auto& m : outcome.unanchored) {
    unanchored.push_back({{"page_id", m.page_id}, {"path", m.path}, {"lines", m.lines}});
  }
  nlohmann::ordered_json moved = nlohmann::ordered_json::object();
  for (const auto& [page, count] : r.moved) moved[page] = count;
  nlohmann::ordered_json renamed = nlohmann::ordered_json::array();
  for (const auto& f : outcome.renamed) {
    renamed.push_back({{"page_id", f.page_id}, {"from", f.from}, {"to", f.to}, {"lines", f.lines}});
  }
  nlohmann::ordered_json misnamed = nlohmann::ordered_json::array();
  for (const auto& m : outcome.misnamed) {
    misnamed.push_back({{"page_id", m.page_id},
                        {"page_line", m.page_line},
                        {"link", m.link},
                        {"named", m.named},
                        {"named_at", m.named_at}});
  }
  nlohmann::ordered_json translated = nlohmann::ordered_json::object();
  for (const auto& [page, count] : outcome.translated) translated[page] = count;
  nlohmann::ordered_json out = {{"repaired", r.repaired},
                                {"unrepairable", r.unrepairable},
                                {"pages_written", r.pages_written},
                                {"lost", r.lost},
                                {"moved", moved},
                                {"missing", missing},
                                {"renamed", renamed},
                                {"translated", translated},
                                {"misnamed", misnamed}};
  if (outcome.reported_only) out["unanchored"] = unanchored;
  return out;
}

void print_text(const command::Outcome& outcome, bool quiet) {
  const auto& r = outcome.result;
  const bool colour = command::colour_for(stdout);
  std::int64_t would_move = 0;
  for (const auto& [page, count] : r.moved) would_move += count;
  const auto problems = findings(outcome);

  if (!quiet) {
    std::int64_t translated = 0;
    for (const auto& [page, count] : outcome.translated) translated += count;
    const auto renamed = static_cast<std::int64_t>(outcome.renamed.size());
    std::string summary;
    if (outcome.reported_only) {
      summary = would_move == 0 && problems.empty() && translated == 0 && renamed == 0
                    ? "all citations are current"
                    : plural(would_move, "citation would move", "citations would move");
    } else {
      summary = plural(r.repaired, "citation repaired", "citations repaired") + ", " +
                plural(r.pages_written, "page written", "pages written");
    }
    const char* would = outcome.reported_only ? " would be" : "";
    if (translated) {
      summary +=
          ", " + plural(translated, "citation", "citations") + would + " carried across the diff";
    }
    if (renamed) {
      summary += ", " + plural(renamed, "citation", "citations") + would + " led to a renamed file";
    }
    if (!r.lost.empty()) summary += ", " + std::to_string(r.lost.size()) + " lost";
    if (!outcome.missing.empty()) {
      summary += ", " + plural(static_cast<std::int64_t>(outcome.missing.size()),
                               "citation of a missing file", "citations of missing files");
    }
    if (!outcome.unanchored.empty()) {
      summary += ", " + plural(static_cast<std::int64_t>(outcome.unanchored.size()),
                               "citation not anchored yet", "citations not anchored yet");
    }
    if (!outcome.misnamed.empty()) {
      summary += ", " + plural(static_cast<std::int64_t>(outcome.misnamed.size()),
                               "new citation names other code", "new citations name other code");
    }
    std::printf("%s\n", summary.c_str());
  }
  for (const auto& [page, count] : r.moved) {
    std::printf("%s: %s\n", page.c_str(),
                plural(count, "citation would move", "citations would move").c_str());
  }
  for (const auto& f : outcome.renamed) {
    std::printf("%s: %s -> %s %s (renamed)\n", f.page_id.c_str(), f.from.c_str(), f.to.c_str(),
                f.lines.c_str());
  }
  for (const auto& c : outcome.carried) {
    std::printf("%s: %s %s -> %s (%s)\n", c.page_id.c_str(), c.path.c_str(), c.from.c_str(),
                c.to.c_str(), outcome.reported_only ? "would be carried" : "carried");
  }
  for (const auto& f : problems) std::printf("%s\n", command::paint(colour, "33", f.text).c_str());
}

// One line: the error's message with its line breaks folded.
std::string one_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

// The message of a file system error as "<file>: <what>: <why>", without the library's own
// wording around it ("filesystem error: <what>: <why> [<file>]").
std::string file_message(const std::filesystem::filesystem_error& error) {
  std::string text = error.what();
  constexpr std::string_view kPrefix = "filesystem error: ";
  if (text.rfind(kPrefix, 0) == 0) text.erase(0, kPrefix.size());
  for (const std::filesystem::path* path : {&error.path2(), &error.path1()}) {
    const std::string suffix = " [" + path->string() + "]";
    if (!path->empty() && text.size() >= suffix.size() &&
        text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0) {
      text.erase(text.size() - suffix.size());
    }
  }
  if (error.path1().empty()) return text;
  return error.path1().string() + ": " + text;
}

// What a JSON error says, without the library's "[json.exception.<kind>.<id>] " before it.
std::string json_message(const nlohmann::json::exception& error) {
  std::string text = error.what();
  if (text.rfind("[json.exception.", 0) == 0) {
    if (const std::size_t end = text.find("] "); end != std::string::npos) text.erase(0, end + 2);
  }
  return "unexpected data: " + text;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(kDescription, "citation-refresh");
  app.footer(kFooter);
  app.set_version_flag("--version", "citation-refresh " CITATION_REFRESH_VERSION);
  command::Options options;
  bool json = false;
  std::string repo, wiki, branch, db;
  app.add_option("--repo", repo,
                 "The repository's work tree (default: the git work tree around the current "
                 "directory)")
      ->type_name("DIR");
  app.add_option("--wiki", wiki,
                 "The wiki directory of markdown pages; relative to the repository (default: docs)")
      ->type_name("DIR");
  app.add_option("--branch", branch,
                 "The branch whose pages the store keeps (default: the current branch; a "
                 "detached head uses its commit)")
      ->type_name("NAME");
  app.add_option("--db", db,
                 "The local store (default: citation-refresh.db in the git directory); a cache "
                 "that may be deleted")
      ->type_name("PATH");
  app.add_flag("--check", options.check,
               "Report only, write nothing; exit 1 when a citation would move, is lost or cites "
               "a missing file");
  app.add_flag_callback(
      "--no-follow-history", [&options] { options.follow_history = false; },
      "Refresh from the stored records alone: do not follow the files git says were "
      "renamed since the wiki was last refreshed, nor carry citations across git's diff "
      "of their files (both are done by default)");
  app.add_flag("--follow-history", options.follow_history)->group("");  // the default
  app.add_flag("--json", json, "Print the result as one JSON object");
  auto* quiet = app.add_flag("--quiet,-q", options.quiet,
                             "No progress, notes or summary; only the findings and errors");
  app.add_flag("--verbose,-v", options.verbose, "Also tell what each step did, on stderr")
      ->excludes(quiet);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    std::fprintf(stderr, "citation-refresh: error: %s (see --help)\n", e.what());
    return 2;
  }
  if (!repo.empty()) options.repo = repo;
  if (!wiki.empty()) options.wiki = wiki;
  if (!branch.empty()) options.branch = branch;
  if (!db.empty()) options.db = db;

  try {
    const command::Outcome outcome = command::run(options);
    if (json) {
      std::printf("%s\n", to_json(outcome).dump(2).c_str());
    } else {
      print_text(outcome, options.quiet);
    }
    std::fflush(stdout);
    if (!options.check) return 0;
    const bool stale = !outcome.result.moved.empty() || !outcome.result.lost.empty() ||
                       !outcome.missing.empty() || !outcome.renamed.empty() ||
                       !outcome.translated.empty() || !outcome.unanchored.empty() ||
                       !outcome.misnamed.empty();
    return stale ? 1 : 0;
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::string message = e.what();
    if (const auto* file = dynamic_cast<const std::filesystem::filesystem_error*>(&e)) {
      message = file_message(*file);
    } else if (const auto* json = dynamic_cast<const nlohmann::json::exception*>(&e)) {
      message = json_message(*json);
    }
    const bool colour = command::colour_for(stderr);
    std::fprintf(stderr, "citation-refresh: %s %s\n",
                 command::paint(colour, "1;31", "error:").c_str(), one_line(message).c_str());
    return 2;
  }
}
