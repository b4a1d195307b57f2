#include "fleet/consent/rewrite.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "src/stat_event/event.h"
#include "tools/base/bytes.h"
#include "tools/base/text.h"
#include "tools/records/record.h"

namespace velmora::usage_stat::consent {

namespace {

// Lets a table's actions loose on the fields of one event.
class Editor : public records::FieldEditor {
 public:
  Editor(const records::RecordType& type, const std::vector<Action>& actions,
         const Pseudonyms& pseudonyms)
      : type_(type), actions_(actions), pseudonyms_(pseudonyms) {}

  std::int64_t Number(std::size_t field, std::int64_t value) override {
    switch (actions_[field]) {
      case Action::kKeep:
        return value;
      case Action::kCoarsen:
        return Coarsen(value);
      case Action::kPseudonym:
        return pseudonyms_.Of(KindOf(field), static_cast<std::int32_t>(value));
      case Action::kDrop:
        break;
    }
    return 0;
  }

  void Text(std::size_t field, std::string* value) override {
    if (actions_[field] == Action::kKeep) return;
    *value = actions_[field] == Action::kPseudonym ? pseudonyms_.Of(KindOf(field), *value)
                                                   : std::string();
  }

  // How many texts a list has is part of what it tells.
  void Texts(std::size_t field, std::vector<std::string>* value) override {
    if (actions_[field] != Action::kKeep && actions_[field] != Action::kPseudonym) value->clear();
    for (std::string& text : *value) Text(field, &text);
  }

 private:
  std::string_view KindOf(std::size_t field) const {
    return records::NameOf(type_.fields[field].kind);
  }

  const records::RecordType& type_;
  const std::vector<Action>& actions_;
  const Pseudonyms& pseudonyms_;
};

}  // namespace

// ---- Pseudonyms ----

std::string Pseudonyms::Digest(std::string_view kind, std::string_view value) const {
  // A kind holds no NUL, so that no two pairs make one message.
  std::string message(kind);
  message += '\0';
  message += value;
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  HMAC(EVP_sha256(), key_.data(), static_cast<int>(key_.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest.data(),
       &size);
  return {digest.begin(), digest.begin() + size};
}

std::int32_t Pseudonyms::Of(std::string_view kind, std::int32_t number) const {
  if (number == 0 || number == -1) return number;
  std::string value;
  base::PutLittleEndian(static_cast<std::uint32_t>(number), sizeof(number), &value);
  const std::string digest = Digest(kind, value);
  for (std::size_t i = 0; i + sizeof(number) <= digest.size(); i += sizeof(number)) {
    const auto pseudonym = static_cast<std::int32_t>(
        base::LittleEndian(std::string_view(digest).substr(i, sizeof(number))));
    if (pseudonym != 0 && pseudonym != -1) return pseudonym;
  }
  return 0;  // no digest was made: nothing leaves rather than the number
}

std::string Pseudonyms::Of(std::string_view kind, std::string_view text) const {
  constexpr std::size_t kBytes = 16;
  if (text.empty()) return {};
  return base::ToHex(std::string_view(Digest(kind, text)).substr(0, kBytes));
}

fleet::Id Pseudonyms::Of(const fleet::Id& store) const {
  const std::string digest = Digest("store", std::string(store.begin(), store.end()));
  fleet::Id id{};
  if (digest.size() >= id.size()) std::copy_n(digest.begin(), id.size(), id.begin());
  return id;
}

// ---- Rewriter ----

std::optional<std::string> Rewriter::Rewrite(std::string_view datagram,
                                             const records::RecordType** type) const {
  const std::optional<records::ReadEvent> read = records::Read(datagram);
  if (!read) return std::nullopt;
  *type = read->type;
  Event& event = *read->event;
  Editor editor(**type, table_->ActionsOf(**type), pseudonyms_);
  (*type)->edit(&event, &editor);
  if (table_->time() != Action::kKeep) event.timestamp_ = CoarsenTime(event.timestamp_);
  std::ostringstream out;
  if (event.WriteToStream(out) != 0) return std::nullopt;
  return std::move(out).str();
}

}  // namespace velmora::usage_stat::consent
