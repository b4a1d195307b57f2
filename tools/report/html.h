// Building blocks of a page. Texts of records are hostile until they went through EscapeHtml() or
// Name(); what else is handed over stands in the page as it is.

#ifndef TOOLS_REPORT_HTML_H_
#define TOOLS_REPORT_HTML_H_

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "tools/base/status.h"

namespace velmora::usage_stat::report {

// `text` for elements and attributes. Control characters become U+FFFD.
std::string EscapeHtml(std::string_view text);

// A name from a record, escaped and kept from changing the direction of the text around it.
std::string Name(std::string_view text);

std::string FormatNumber(std::int64_t number);                  // 1,234,567
std::string FormatDuration(std::int64_t ms);                    // 12 h 05 min, 7 min, 40 s
std::string FormatPercent(std::int64_t percent);                // 12 %
std::string Plural(std::int64_t count, std::string_view noun);  // 1 book, 2 books

struct Column {
  std::string_view head;
  bool is_number = false;
};

using Row = std::vector<std::string>;  // cells in HTML, the first one heads its row

std::string Table(std::string_view caption, const std::vector<Column>& columns,
                  const std::vector<Row>& rows);

std::string Card(std::string_view title, std::string_view note, std::string_view body,
                 bool is_wide = false);

// One of a page's key numbers.
std::string Tile(std::string_view label, const std::string& value, const std::string& note,
                 bool is_alert = false);

using Slots = std::map<std::string_view, std::string>;

// `text` with each {{slot}} filled. What is filled in is not searched for slots.
std::string FillTemplate(std::string_view text, const Slots& slots);

// A whole page, with style and scripts: `slots` has "title", "range", "about" and "main"; `charts`
// is what Figures::Data() gives.
std::string RenderShell(Slots slots, const nlohmann::ordered_json& charts);

// Writes a page to `path`, readable for its owner alone: it tells about people.
base::Status WritePage(const std::string& path, const std::string& page);

}  // namespace velmora::usage_stat::report

#endif  // TOOLS_REPORT_HTML_H_
