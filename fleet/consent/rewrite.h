// Records as they may leave: rewritten by a policy's table, as records of the same classes.

#ifndef FLEET_CONSENT_REWRITE_H_
#define FLEET_CONSENT_REWRITE_H_

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "fleet/consent/policy.h"
#include "tools/records/catalogue.h"

namespace velmora::usage_stat::consent {

// Stands for values by keyed digests (HMAC-SHA-256). With one key equal values of one kind get
// equal pseudonyms; without the key nobody can tell which value one stands for, whatever list of
// values they try.
class Pseudonyms {
 public:
  using Key = std::array<std::uint8_t, 32>;

  explicit Pseudonyms(const Key& key) : key_(key) {}

  // 0 and -1, which stand for nothing, stay; nothing else gets them.
  std::int32_t Of(std::string_view kind, std::int32_t number) const;

  // What the fleet knows one of the device's stores by, so that no two identities share one.
  fleet::Id Of(const fleet::Id& store) const;

  // 32 hexadecimal digits; the empty text stays.
  std::string Of(std::string_view kind, std::string_view text) const;

 private:
  std::string Digest(std::string_view kind, std::string_view value) const;

  const Key key_;
};

class Rewriter {
 public:
  Rewriter(std::shared_ptr<const Table> table, const Pseudonyms::Key& key)
      : table_(std::move(table)), pseudonyms_(key) {}

  // The record that `datagram` holds as it may leave, of the same class; `type` tells which, an
  // element of records::Catalogue(). Nothing when it holds none: what can't be read can't be
  // looked through, and stays.
  std::optional<std::string> Rewrite(std::string_view datagram,
                                     const records::RecordType** type) const;

  const Table& table() const { return *table_; }

 private:
  const std::shared_ptr<const Table> table_;
  const Pseudonyms pseudonyms_;
};

}  // namespace velmora::usage_stat::consent

#endif  // FLEET_CONSENT_REWRITE_H_
