// Payloads by column: rows that are laid out alike, turned so that like stands beside like.
//
// A layout has one letter for each piece of a payload:
//
//   1 2 4 8   a little-endian number of so many bytes
//   A         20 bytes that are no number
//   s         a text: UInt32 length, then its bytes
//   v         a list of texts: UInt32 count, then the texts
//   r         all bytes that are left; only as the last letter
//
// It tells everything that turning rows into columns and back takes, so that a reader can restore
// records of types it has never heard of.

#ifndef FLEET_BATCH_COLUMNS_H_
#define FLEET_BATCH_COLUMNS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/batch/wire.h"

namespace velmora::usage_stat::fleet {

constexpr std::size_t kLongestLayout = 64;

bool IsLayout(std::string_view layout);

// Whether `payload` consists of exactly these pieces.
bool Fits(std::string_view layout, std::string_view payload);

// Appends a column of numbers. Each of `values` has `width` bytes; what is above them is ignored.
void PutNumbers(std::size_t width, const std::vector<std::uint64_t>& values, std::string* out);
bool TakeNumbers(std::size_t width, std::size_t rows, WireReader* in,
                 std::vector<std::uint64_t>* values);

// Appends `payloads`, which all fit `layout`, column by column.
void PutColumns(std::string_view layout, const std::vector<std::string_view>& payloads,
                std::string* out);
// The way back; the size of `payloads` tells how many rows there are. `budget` is how many bytes
// they may have together, and is lowered by what they have.
bool TakeColumns(std::string_view layout, WireReader* in, std::size_t* budget,
                 const std::vector<std::string*>& payloads);

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_BATCH_COLUMNS_H_
