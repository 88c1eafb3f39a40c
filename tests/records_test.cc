#include <gtest/gtest.h>

#include "hosts/memory/memory_host.h"
#include "workers/wiki/citation_refresh/internal.h"

namespace tolbarrow::hosts::memory {
namespace {

TEST(ToLine, ConvertsWhatALineMayBeStoredAs) {
  const std::pair<Record, Line> cases[] = {
      {Record(12), 12},
      {Record(-3), -3},
      {Record(12.9), 12},
      {Record(-12.9), -12},
      {Record(true), 1},
      {Record(false), 0},
      {Record("12"), 12},
      {Record("  -7\n"), -7},
      {Record("+5"), 5},
      // Any Unicode white space around the digits: no-break, em and ideographic spaces.
      {Record("12\u3000"), 12},
      {Record("\u00a012"), 12},
      {Record("\u2003 12 \u2029"), 12},
      {Record(9223372036854775807LL), 9223372036854775807LL},
  };
  for (const auto& [value, line] : cases)
    EXPECT_EQ(cr::detail::to_line(value, "line_start"), line) << value;
}

TEST(ToLine, RejectsNonNumbersAndAbsurdValuesWithClearErrors) {
  const Record type_errors[] = {Record(nullptr), Record::object(), Record::array()};
  for (const auto& value : type_errors) {
    EXPECT_THROW(cr::detail::to_line(value, "line_end"), cr::RecordTypeError) << value;
  }
  const Record value_errors[] = {
      Record("12a"),
      Record(""),
      Record("1.5"),
      Record("- 3"),
      Record("0x10"),
      Record("1\u30002"),
      Record("\u3000"),
      Record("\xff"
             "1"),
      Record(1e30),
      Record(-1e30),
      Record(9223372036854775808.0),
      Record(std::numeric_limits<double>::infinity()),
      Record(std::nan("")),
      Record(9223372036854775808ULL),  // 2^63
      Record("99999999999999999999"),
      Record("-99999999999999999999"),
  };
  for (const auto& value : value_errors) {
    try {
      cr::detail::to_line(value, "line_end");
      ADD_FAILURE() << "accepted " << value;
    } catch (const cr::RecordValueError& e) {
      EXPECT_EQ(std::string(e.what()).rfind("line_end: ", 0), 0u) << e.what();
    }
  }
}

TEST(StoredKey, DefaultsAndConversions) {
  EXPECT_EQ(cr::detail::stored_key(Record::object()), (CitationKey{"", 0, 0}));
  EXPECT_EQ(cr::detail::stored_key({{"path", "src/a.py"}, {"line_start", "3"}, {"line_end", 9.0}}),
            (CitationKey{"src/a.py", 3, 9}));
  // A path that is not text never equals a real file path.
  EXPECT_EQ(cr::detail::stored_key({{"path", 5}}).path, "5");
  EXPECT_THROW(cr::detail::stored_key({{"path", "a"}, {"line_start", nullptr}}),
               cr::RecordTypeError);
}

// The typed fields read the same from a row that lends its record as from one that is read
// field by field; only the lending row hands out its own citation list.
TEST(PageRows, ReadInPlaceOrThroughField) {
  struct FieldRow : PageRow {
    Record row;
    explicit FieldRow(Record r) : row(std::move(r)) {}
    std::optional<Record> field(std::string_view key) const override {
      auto it = row.find(key);
      return it == row.end() ? std::nullopt : std::optional<Record>(*it);
    }
  };
  const Record cases[] = {
      {{"page_id", 7},
       {"rel_path", "a.md"},
       {"citations", {{{"path", "x"}}}},
       {"build_cache", {{"n", 1}}}},
      {{"page_id", "p"}, {"rel_path", ""}, {"citations", nullptr}},
      {{"page_id", "p"}, {"citations", "text"}},
  };
  for (const Record& record : cases) {
    const RecordPageRow lent(record);
    const FieldRow read(record);
    for (const PageRow* row :
         {static_cast<const PageRow*>(&lent), static_cast<const PageRow*>(&read)}) {
      EXPECT_EQ(row->page_id(), cr::detail::to_path(record["page_id"]));
      EXPECT_EQ(row->rel_path(), lent.rel_path());
      std::vector<Record> storage;
      if (!record["citations"].is_string()) {
        const auto& citations = row->citations(storage);
        EXPECT_EQ(citations, row->citations());
        const bool own = record["citations"].is_array();
        EXPECT_EQ(&citations == &storage, !(own && row == &lent)) << record;
        EXPECT_EQ(row->build_cache(), record.value("build_cache", Record::object()));
      } else {
        EXPECT_THROW(row->citations(storage), cr::RecordTypeError);
        EXPECT_THROW(row->citations(), cr::RecordTypeError);
      }
    }
  }
}

TEST(RecordsEqual, IgnoresKeyOrderAtEveryDepth) {
  const Record a = {{"x", 1}, {"m", {{"p", 1}, {"q", {1, 2}}}}};
  const Record b = {{"m", {{"q", {1, 2}}, {"p", 1}}}, {"x", 1.0}};
  EXPECT_TRUE(cr::records_equal(a, b));
  EXPECT_FALSE(cr::records_equal(a, {{"x", 1}}));
  EXPECT_FALSE(cr::records_equal({{"q", {1, 2}}}, {{"q", {2, 1}}}));
  // Keys in one order, told apart by a value or by a key past the first ones.
  const Record c = {{"a", 1}, {"b", {{"p", 1}}}};
  EXPECT_TRUE(cr::records_equal(c, {{"a", 1}, {"b", {{"p", 1.0}}}}));
  EXPECT_FALSE(cr::records_equal(c, {{"a", 1}, {"b", {{"p", 2}}}}));
  EXPECT_FALSE(cr::records_equal(c, {{"a", 1}, {"c", {{"p", 1}}}}));
}

TEST(JsonText, OneLineAndIndentedForms) {
  const Record cache =
      Record::parse(R"j({"prose": "é (a#L1-L2)", "n": [1, {"k": null}], "e": {}})j");
  EXPECT_EQ(cr::detail::dump_one_line(cache),
            R"j({"prose": "é (a#L1-L2)", "n": [1, {"k": null}], "e": {}})j");

  const Record digests = Record::parse(
      "{\"p\": {\"citations\": [], \"t\": \"\\u0001\\t\\u001f\xe2\x9c\x93\", \"o\": {}}}");
  EXPECT_EQ(cr::detail::dump_digests(digests),
            "{\n  \"p\": {\n    \"citations\": [],\n    \"t\": \"\\u0001\\t\\u001f\xe2\x9c\x93\",\n"
            "    \"o\": {}\n  }\n}");
}

}  // namespace
}  // namespace tolbarrow::hosts::memory
