// citation-refresh: keeps the code citations of a repository's markdown docs pointing at the code
// they cite. See README.md next to this file.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <vector>

#include "hosts/native/command/run.h"
#include "hosts/native/command/terminal.h"

namespace {

namespace command = tolbarrow::hosts::native::command;

constexpr const char* kDescription =
    "Keeps the code citations of a repository's markdown docs (*.md, *.markdown,\n"
    "*.mdx), links such as [parse](/src/parse.py#L10-L12) from the repository root or\n"
    "[parse](../src/parse.py#L10) from the page's folder (inline or by reference),\n"
    "or this repository's file links on its forge\n"
    "(https://github.com/OWNER/REPO/blob/main/src/parse.py#L10-L12), pointing at the\n"
    "declarations they cite.\n"
    "\n"
    "Each run reads the pages of the wiki directory, indexes the repository with\n"
    "universal-ctags, moves every citation whose declaration moved, and reports the\n"
    "citations whose declaration is gone (lost) or whose file is not in the\n"
    "repository (missing file); it never removes one. It keeps each citation's\n"
    "declaration in <wiki>/.citation-anchors.json: commit it with the docs, so that\n"
    "--check in a fresh clone (CI) knows what each citation cites.\n";

// The exit code of a writing run that found another run writing the wiki and only reported.
constexpr int kBusy = 3;

constexpr const char* kFooter =
    "Findings: one line each, page:line:column: citation (what), then a summary and\n"
    "what to run; kinds: moved, carried, renamed (the run writes them), lost, missing\n"
    "file, invalid (line 0, a reversed range, past the end of the file), not anchored\n"
    "yet, a new citation whose prose names other code, and a permalink (a forge link\n"
    "to a commit) whose code is elsewhere at HEAD: permalinks are frozen on purpose,\n"
    "so they are only told (a warning) unless --update-permalinks is given.\n"
    "\n"
    "Exit codes: 0 the citations are current, or were written (a writing run exits 0\n"
    "even when citations are lost or missing: it reports them); 1 with --check, when a\n"
    "citation would move (or follow a renamed file), is lost, invalid, cites a missing\n"
    "file, or is new and its prose names a declaration that does not hold its lines;\n"
    "2 an error; 3 a writing run found another run writing the wiki, wrote nothing and\n"
    "only reported. --check also exits 1 for a citation that the anchors file does not\n"
    "know yet (commit the anchors file a writing run leaves).\n"
    "\n"
    "Workflow: run citation-refresh after changing code, review and commit the pages\n"
    "and the anchors file; run citation-refresh --check in CI or pre-commit.";

std::string plural(std::int64_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
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
  nlohmann::ordered_json findings = nlohmann::ordered_json::array();
  for (const command::Finding& f : outcome.findings) findings.push_back(command::finding_json(f));
  nlohmann::ordered_json out = {{"version", 1},
                                {"stale", outcome.stale},
                                {"written", !outcome.reported_only},
                                {"busy", outcome.busy},
                                {"findings", findings},
                                {"repaired", r.repaired},
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

// The summary line: what the run did or would do, counted.
std::string summary(const command::Outcome& outcome) {
  const auto& r = outcome.result;
  std::int64_t would_move = 0, translated = 0;
  for (const auto& [page, count] : r.moved) would_move += count;
  for (const auto& [page, count] : outcome.translated) translated += count;
  const auto renamed = static_cast<std::int64_t>(outcome.renamed.size());
  std::string out;
  if (outcome.reported_only) {
    out = outcome.findings.empty() && would_move == 0 && translated == 0 && renamed == 0
              ? "all citations are current"
              : plural(would_move, "citation would move", "citations would move");
  } else {
    out = plural(r.repaired, "citation repaired", "citations repaired") + ", " +
          plural(r.pages_written, "page written", "pages written");
  }
  const char* would = outcome.reported_only ? " would be" : "";
  if (translated) {
    out += ", " + plural(translated, "citation", "citations") + would + " carried across the diff";
  }
  if (renamed)
    out += ", " + plural(renamed, "citation", "citations") + would + " followed to a renamed file";
  std::map<command::FindingKind, std::int64_t> count;
  for (const command::Finding& f : outcome.findings) ++count[f.kind];
  using K = command::FindingKind;
  if (count[K::lost]) out += ", " + std::to_string(count[K::lost]) + " lost";
  if (count[K::invalid]) {
    out += ", " + plural(count[K::invalid], "citation of lines no file has",
                         "citations of lines no file has");
  }
  if (count[K::missing]) {
    out += ", " +
           plural(count[K::missing], "citation of a missing file", "citations of missing files");
  }
  if (count[K::unanchored]) {
    out += ", " +
           plural(count[K::unanchored], "citation not anchored yet", "citations not anchored yet");
  }
  if (count[K::misnamed]) {
    out += ", " + plural(count[K::misnamed], "new citation names other code",
                         "new citations name other code");
  }
  std::int64_t repointed = 0;
  for (const command::Finding& f : outcome.findings) {
    if (f.kind == K::permalink && !f.new_commit.empty()) ++repointed;
  }
  if (repointed > 0) {
    out += ", " + plural(repointed, "permalink", "permalinks") + would +
           (outcome.reported_only ? " updated" : " updated to HEAD");
  }
  if (count[K::permalink] > repointed) {
    out += ", " + plural(count[K::permalink] - repointed, "permalink to older code",
                         "permalinks to older code");
  }
  return out;
}

// What to do next, a line each: run the command, fix links by hand, or wait for the other writer.
std::vector<std::string> advice(const command::Outcome& outcome) {
  std::vector<std::string> out;
  bool to_write = false, by_hand = false, permalinks = false;
  for (const command::Finding& f : outcome.findings) {
    if (f.kind == command::FindingKind::permalink) {
      to_write = to_write || (outcome.reported_only && f.action);
      permalinks = permalinks || (!f.action && f.new_lines && f.new_commit.empty());
      continue;
    }
    switch (f.kind) {
      case command::FindingKind::moved:
      case command::FindingKind::carried:
      case command::FindingKind::renamed:
      case command::FindingKind::unanchored:
        to_write = to_write || outcome.reported_only;
        break;
      default:
        by_hand = true;
    }
  }
  if (outcome.busy) {
    out.push_back(
        "another run is writing the wiki: nothing was written; run citation-refresh "
        "again once it is done");
  } else if (to_write) {
    out.push_back(
        "run citation-refresh to write these changes, then commit the pages and the "
        "anchors file");
  }
  if (by_hand) {
    out.push_back(std::string(out.empty() ? "fix these" : "fix the other") +
                  " citations by hand: give each link the path and lines it should cite now");
  }
  if (permalinks) {
    out.push_back(
        "permalinks stay as written; citation-refresh --update-permalinks points those whose "
        "code moved at HEAD");
  }
  return out;
}

enum class Format { text, github, json };

void print(const command::Outcome& outcome, Format format, bool quiet) {
  const bool colour = format == Format::text && command::colour_for(stdout);
  const bool written = !outcome.reported_only;
  for (const command::Finding& f : outcome.findings) {
    const std::string line = format == Format::github ? command::github_line(f, written)
                                                      : command::compiler_line(f, written);
    std::printf("%s\n", f.action ? command::paint(colour, "33", line).c_str() : line.c_str());
  }
  if (quiet) return;
  std::printf("%s\n", summary(outcome).c_str());
  for (const std::string& line : advice(outcome)) std::printf("%s\n", line.c_str());
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
  std::string format_name = "text";
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
  std::string forge_url;
  app.add_option("--forge-url", forge_url,
                 "This repository on its forge, whose file links (.../blob/REF/PATH#Lx-Ly) are "
                 "citations too (default: the origin remote's address)")
      ->type_name("URL");
  app.add_flag("--update-permalinks", options.update_permalinks,
               "Point each permalink (a forge link to a commit) whose code moved unchanged at "
               "HEAD's commit and the lines there (default: only report them)");
  app.add_option("--format", format_name,
                 "How to print the findings: text (one compiler-style line each, "
                 "page:line:column: ...), github (GitHub workflow annotations) or json")
      ->check(CLI::IsMember({"text", "github", "json"}).description(""))
      ->type_name("text|github|json");
  app.add_flag("--json", json, "Print the result as one JSON object (--format json)");
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
  const Format format = json || format_name == "json" ? Format::json
                        : format_name == "github"     ? Format::github
                                                      : Format::text;
  if (!repo.empty()) options.repo = repo;
  if (!wiki.empty()) options.wiki = wiki;
  if (!branch.empty()) options.branch = branch;
  if (!db.empty()) options.db = db;
  if (!forge_url.empty()) options.forge_url = forge_url;

  try {
    const command::Outcome outcome = command::run(options);
    if (format == Format::json) {
      std::printf("%s\n", to_json(outcome).dump(2).c_str());
    } else {
      print(outcome, format, options.quiet);
    }
    std::fflush(stdout);
    if (outcome.busy) return kBusy;
    if (!options.check) return 0;
    return outcome.stale ? 1 : 0;
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
