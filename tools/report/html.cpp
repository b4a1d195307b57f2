#include "tools/report/html.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <sstream>

#include "tools/base/system.h"
#include "tools/report/assets.h"

namespace velmora::usage_stat::report {

namespace {

using Json = nlohmann::ordered_json;

// JSON that can stand in a script element whatever its texts hold.
std::string EmbedJson(const Json& json) {
  const std::string text = json.dump(-1, ' ', true, Json::error_handler_t::replace);
  std::string embedded;
  embedded.reserve(text.size());
  for (const char c : text) {
    if (c == '<') {
      embedded += "\\u003c";
    } else {
      embedded += c;
    }
  }
  return embedded;
}

// How a content security policy names an inline script or style.
std::string SourceHash(std::string_view source) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  EVP_Digest(source.data(), source.size(), digest.data(), &size, EVP_sha256(), nullptr);
  std::array<unsigned char, 4 * (EVP_MAX_MD_SIZE + 2) / 3 + 1> base64{};
  const int length = EVP_EncodeBlock(base64.data(), digest.data(), static_cast<int>(size));
  return fmt::format("'sha256-{}'", std::string(base64.begin(), base64.begin() + length));
}

// Nothing may be fetched, and nothing may run but the page's own scripts.
std::string ContentSecurityPolicy() {
  return fmt::format(
      "default-src 'none'; base-uri 'none'; form-action 'none'; img-src data:; style-src {}; "
      "script-src {} {}",
      SourceHash(assets::kStyle), SourceHash(assets::kLibrary), SourceHash(assets::kScript));
}

}  // namespace

std::string EscapeHtml(std::string_view text) {
  std::string html;
  html.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        html += "&amp;";
        break;
      case '<':
        html += "&lt;";
        break;
      case '>':
        html += "&gt;";
        break;
      case '"':
        html += "&quot;";
        break;
      case '\'':
        html += "&#39;";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
          html += "\uFFFD";
        } else {
          html += c;
        }
    }
  }
  return html;
}

std::string Name(std::string_view text) { return "<bdi>" + EscapeHtml(text) + "</bdi>"; }

std::string FormatNumber(std::int64_t number) {
  std::string text = std::to_string(number);
  const std::size_t sign = number < 0 ? 1 : 0;
  for (std::size_t end = text.size(); end > sign + 3; end -= 3) text.insert(end - 3, 1, ',');
  return text;
}

std::string FormatDuration(std::int64_t ms) {
  constexpr std::int64_t kMinuteMs = 60000;
  const std::int64_t seconds = (ms + 500) / 1000;
  if (seconds < 60) return fmt::format("{} s", seconds);
  const std::int64_t minutes = (ms + kMinuteMs / 2) / kMinuteMs;
  if (minutes < 60) return fmt::format("{} min", minutes);
  return fmt::format("{} h {:02} min", FormatNumber(minutes / 60), minutes % 60);
}

std::string FormatPercent(std::int64_t percent) { return fmt::format("{} %", percent); }

std::string Plural(std::int64_t count, std::string_view noun) {
  return fmt::format("{} {}{}", FormatNumber(count), noun, count == 1 ? "" : "s");
}

std::string Table(std::string_view caption, const std::vector<Column>& columns,
                  const std::vector<Row>& rows) {
  const auto class_of = [](const Column& column) {
    return column.is_number ? " class=\"number\"" : "";
  };
  std::string html = fmt::format(
      "<div class=\"scroll\" role=\"region\" tabindex=\"0\" aria-label=\"{}\"><table><thead><tr>",
      EscapeHtml(caption));
  for (const Column& column : columns) {
    html += fmt::format("<th scope=\"col\"{}>{}</th>", class_of(column), column.head);
  }
  html += "</tr></thead>\n<tbody>\n";
  for (const Row& row : rows) {
    html += "<tr>";
    for (std::size_t i = 0; i < row.size(); ++i) {
      html += i == 0 ? fmt::format("<th scope=\"row\">{}</th>", row[i])
                     : fmt::format("<td{}>{}</td>", class_of(columns[i]), row[i]);
    }
    html += "</tr>\n";
  }
  return html + "</tbody></table></div>\n";
}

std::string Card(std::string_view title, std::string_view note, std::string_view body,
                 bool is_wide) {
  return fmt::format("<div class=\"card{}\">\n<h3>{}</h3>\n{}{}</div>\n", is_wide ? " wide" : "",
                     title, note.empty() ? "" : fmt::format("<p class=\"note\">{}</p>\n", note),
                     body);
}

std::string Tile(std::string_view label, const std::string& value, const std::string& note,
                 bool is_alert) {
  return fmt::format(
      "<div><dt>{}</dt><dd class=\"value{}\">{}</dd><dd class=\"note\">{}</dd></div>\n", label,
      is_alert ? " alert" : "", value, note);
}

std::string FillTemplate(std::string_view text, const Slots& slots) {
  std::string page;
  while (true) {
    const std::size_t begin = text.find("{{");
    const std::size_t end = text.find("}}", begin);
    if (end == std::string_view::npos) return page.append(text);
    page.append(text.substr(0, begin));
    page.append(slots.at(text.substr(begin + 2, end - begin - 2)));
    text.remove_prefix(end + 2);
  }
}

std::string RenderShell(Slots slots, const Json& charts) {
  slots["policy"] = ContentSecurityPolicy();
  std::istringstream licence{std::string(assets::kLicence)};
  for (std::string line; std::getline(licence, line);) slots["licence"] += EscapeHtml(line) + "\n";
  slots["data"] = EmbedJson(charts);
  slots["style"] = assets::kStyle;
  slots["library"] = assets::kLibrary;
  slots["script"] = assets::kScript;
  return FillTemplate(assets::kShell, slots);
}

base::Status WritePage(const std::string& path, const std::string& page) {
  const base::Descriptor file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR));
  const auto failed = [&] { return base::Status::Errno("cannot write " + path); };
  struct stat status {};
  if (!file.is_open() || fstat(file.get(), &status) != 0) return failed();
  // One that was there may have been open to others.
  if (S_ISREG(status.st_mode) && fchmod(file.get(), S_IRUSR | S_IWUSR) != 0) return failed();
  std::string_view rest = page;
  while (!rest.empty()) {
    const ssize_t written = write(file.get(), rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return failed();
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  return {};
}

}  // namespace velmora::usage_stat::report
