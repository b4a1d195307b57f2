#include "fleet/batch/columns.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "tools/base/bytes.h"

namespace velmora::usage_stat::fleet {

namespace {

constexpr std::size_t kLengthSize = 4;
constexpr std::size_t kPlainBytes = 20;

// How a column of numbers is written.
enum class Coding : std::uint8_t { kConstant = 0, kPlain = 1, kDelta = 2 };

std::size_t WidthOf(char letter) {
  return letter >= '1' && letter <= '8' ? static_cast<std::size_t>(letter - '0') : 0;
}

std::uint64_t Mask(std::size_t width) {
  return width == 8 ? ~std::uint64_t{0} : (std::uint64_t{1} << (8 * width)) - 1;
}

// Numbers of `width` bytes as a step from the one before, small steps either way being small.
std::uint64_t StepTo(std::uint64_t value, std::uint64_t before, std::size_t width) {
  const unsigned unused = static_cast<unsigned>(64 - 8 * width);
  const std::uint64_t step = (value - before) << unused;
  return ZigZag(static_cast<std::int64_t>(step) >> unused) & Mask(width);
}
std::uint64_t StepFrom(std::uint64_t before, std::uint64_t step, std::size_t width) {
  return (before + static_cast<std::uint64_t>(UnZigZag(step))) & Mask(width);
}

// All lowest bytes, then all second ones, and so on.
void PutPlanes(std::size_t width, const std::vector<std::uint64_t>& values, std::string* out) {
  for (std::size_t plane = 0; plane < width; ++plane) {
    for (const std::uint64_t value : values) {
      out->push_back(static_cast<char>(static_cast<std::uint8_t>(value >> (8 * plane) & 0xff)));
    }
  }
}

// About how many bits a general compressor needs for the planes: the entropy of their bytes.
double Cost(std::size_t width, const std::vector<std::uint64_t>& values) {
  double bits = 0;
  for (std::size_t plane = 0; plane < width; ++plane) {
    std::array<unsigned, 256> counts{};
    for (const std::uint64_t value : values) ++counts[value >> (8 * plane) & 0xff];
    for (const unsigned count : counts) {
      if (count != 0) bits -= count * std::log2(count / static_cast<double>(values.size()));
    }
  }
  return bits;
}

// A piece of a payload as the bytes that make it up, taken from the front of `in`.
std::string_view TakePiece(char letter, WireReader* in) {
  if (const std::size_t width = WidthOf(letter); width != 0) return in->Bytes(width);
  switch (letter) {
    case 'A':
      return in->Bytes(kPlainBytes);
    case 's':
      return in->Bytes(base::LittleEndian(in->Bytes(kLengthSize)));
    case 'r':
      return in->Bytes(in->left());
    default:
      return {};
  }
}

// Everything that the rows have in one place of the layout.
void PutColumn(char letter, std::vector<WireReader>* rows, std::string* out) {
  if (const std::size_t width = WidthOf(letter); width != 0) {
    std::vector<std::uint64_t> values;
    values.reserve(rows->size());
    for (WireReader& row : *rows) values.push_back(base::LittleEndian(TakePiece(letter, &row)));
    PutNumbers(width, values, out);
    return;
  }
  std::string texts;
  if (letter == 'v') {
    std::vector<std::uint64_t> counts;
    for (WireReader& row : *rows) {
      counts.push_back(base::LittleEndian(row.Bytes(kLengthSize)));
      PutNumber(counts.back(), out);
    }
    for (std::size_t i = 0; i < rows->size(); ++i) {
      for (std::uint64_t left = counts[i]; left > 0; --left) {
        const std::string_view text = TakePiece('s', &(*rows)[i]);
        PutNumber(text.size(), out);
        texts += text;
      }
    }
  } else {
    for (WireReader& row : *rows) {
      const std::string_view text = TakePiece(letter, &row);
      if (letter != 'A') PutNumber(text.size(), out);
      texts += text;
    }
  }
  *out += texts;
}

// Takes from a budget that must not be overdrawn.
bool Spend(std::uint64_t size, std::size_t* budget) {
  if (size > *budget) return false;
  *budget -= static_cast<std::size_t>(size);
  return true;
}

bool TakeColumn(char letter, WireReader* in, std::size_t* budget,
                const std::vector<std::string*>& rows) {
  if (const std::size_t width = WidthOf(letter); width != 0) {
    std::vector<std::uint64_t> values;
    if (!Spend(width * rows.size(), budget) || !TakeNumbers(width, rows.size(), in, &values)) {
      return false;
    }
    for (std::size_t i = 0; i < rows.size(); ++i) base::PutLittleEndian(values[i], width, rows[i]);
    return true;
  }
  if (letter == 'A') {
    for (std::string* row : rows) *row += in->Bytes(kPlainBytes);
    return !in->failed() && Spend(kPlainBytes * rows.size(), budget);
  }

  // Lists come before their texts, lengths before the bytes.
  std::vector<std::size_t> counts(rows.size(), 1);
  std::size_t texts = rows.size();
  if (letter == 'v') {
    texts = 0;
    for (std::size_t& count : counts) {
      count = in->Count();
      texts += count;
      if (texts > in->left()) return false;
    }
  }
  if (texts > in->left()) return false;
  std::vector<std::uint64_t> lengths;
  lengths.reserve(texts);
  for (std::size_t i = 0; i < texts; ++i) lengths.push_back(in->Number());
  std::size_t text = 0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (letter == 'v') {
      if (!Spend(kLengthSize, budget)) return false;
      base::PutLittleEndian(counts[i], kLengthSize, rows[i]);
    }
    for (std::size_t left = counts[i]; left > 0; --left) {
      const std::uint64_t length = lengths[text++];
      const std::string_view bytes = in->Bytes(length);
      if (in->failed()) return false;
      if (letter != 'r') {
        if (!Spend(kLengthSize, budget)) return false;
        base::PutLittleEndian(length, kLengthSize, rows[i]);
      }
      if (!Spend(length, budget)) return false;
      *rows[i] += bytes;
    }
  }
  return !in->failed();
}

}  // namespace

bool IsLayout(std::string_view layout) {
  if (layout.size() > kLongestLayout) return false;
  for (std::size_t i = 0; i < layout.size(); ++i) {
    if (std::string_view("1248Asvr").find(layout[i]) == std::string_view::npos) return false;
    if (layout[i] == 'r' && i + 1 != layout.size()) return false;
  }
  return true;
}

bool Fits(std::string_view layout, std::string_view payload) {
  WireReader in(payload);
  for (const char letter : layout) {
    if (letter != 'v') {
      TakePiece(letter, &in);
      continue;
    }
    for (std::uint64_t left = base::LittleEndian(in.Bytes(kLengthSize)); left > 0 && !in.failed();
         --left) {
      TakePiece('s', &in);
    }
  }
  return !in.failed() && in.left() == 0;
}

void PutNumbers(std::size_t width, const std::vector<std::uint64_t>& values, std::string* out) {
  if (values.empty()) return;
  if (std::ranges::all_of(values, [&](std::uint64_t value) { return value == values.front(); })) {
    out->push_back(static_cast<char>(Coding::kConstant));
    base::PutLittleEndian(values.front(), width, out);
    return;
  }
  std::vector<std::uint64_t> steps;
  steps.reserve(values.size());
  std::uint64_t before = 0;
  for (const std::uint64_t value : values) {
    steps.push_back(StepTo(value, before, width));
    before = value;
  }
  const bool by_steps = Cost(width, steps) < Cost(width, values);
  out->push_back(static_cast<char>(by_steps ? Coding::kDelta : Coding::kPlain));
  PutPlanes(width, by_steps ? steps : values, out);
}

bool TakeNumbers(std::size_t width, std::size_t rows, WireReader* in,
                 std::vector<std::uint64_t>* values) {
  values->assign(rows, 0);
  if (rows == 0) return true;
  const auto coding = static_cast<Coding>(in->Byte());
  if (coding == Coding::kConstant) {
    values->assign(rows, base::LittleEndian(in->Bytes(width)));
    return !in->failed();
  }
  if (coding != Coding::kPlain && coding != Coding::kDelta) return false;
  for (std::size_t plane = 0; plane < width; ++plane) {
    const std::string_view bytes = in->Bytes(rows);
    if (in->failed()) return false;
    for (std::size_t i = 0; i < rows; ++i) {
      (*values)[i] |= std::uint64_t{static_cast<std::uint8_t>(bytes[i])} << (8 * plane);
    }
  }
  if (coding == Coding::kDelta) {
    std::uint64_t before = 0;
    for (std::uint64_t& value : *values) value = before = StepFrom(before, value, width);
  }
  return true;
}

void PutColumns(std::string_view layout, const std::vector<std::string_view>& payloads,
                std::string* out) {
  std::vector<WireReader> rows(payloads.begin(), payloads.end());
  for (const char letter : layout) PutColumn(letter, &rows, out);
}

bool TakeColumns(std::string_view layout, WireReader* in, std::size_t* budget,
                 const std::vector<std::string*>& payloads) {
  return std::ranges::all_of(layout,
                             [&](char letter) { return TakeColumn(letter, in, budget, payloads); });
}

}  // namespace velmora::usage_stat::fleet
