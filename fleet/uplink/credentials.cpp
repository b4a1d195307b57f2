#include "fleet/uplink/credentials.h"

#include <fmt/format.h>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string_view>

#include "tools/base/system.h"
#include "tools/records/text.h"
#include "tools/store/file.h"

namespace velmora::usage_stat::uplink {

using base::Status;

namespace {

// The clock of a device that has none begins at 1970; no certificate of ours is as old as this.
constexpr std::int64_t kEarliestMs = std::int64_t{1'577'836'800'000};  // 2020

template <auto kFree>
struct Free {
  template <class Thing>
  void operator()(Thing* thing) const {
    (void)kFree(thing);
  }
};
using Bio = std::unique_ptr<BIO, Free<BIO_free>>;
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Free<EVP_PKEY_CTX_free>>;
using Request = std::unique_ptr<X509_REQ, Free<X509_REQ_free>>;
using X509Certificate = std::unique_ptr<X509, Free<X509_free>>;
using Time = std::unique_ptr<ASN1_TIME, Free<ASN1_TIME_free>>;

// Why OpenSSL refused the last thing it was asked for.
Status Failure(const std::string& what) {
  const char* reason = ERR_reason_error_string(ERR_peek_last_error());
  ERR_clear_error();
  return Status::Failed(what + (reason ? std::string(": ") + reason : std::string()));
}

std::string TextOf(BIO* bio) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  return {data, static_cast<std::size_t>(size)};
}

Bio BioOf(std::string_view text) {
  return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

constexpr mode_t kOwnMode = 0600;

Status ReadKey(const std::string& path, Key* key) {
  const Bio file(BIO_new_file(path.c_str(), "r"));
  if (file) key->reset(PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, nullptr));
  return *key ? Status() : Failure("cannot read the key in " + path);
}

Status MakeKey(const std::string& path, Key* key) {
  const KeyContext context(EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr));
  EVP_PKEY* made = nullptr;
  const Bio text(BIO_new(BIO_s_mem()));
  const bool is_made =
      context && text && EVP_PKEY_keygen_init(context.get()) == 1 &&
      EVP_PKEY_CTX_set_ec_paramgen_curve_nid(context.get(), NID_X9_62_prime256v1) == 1 &&
      EVP_PKEY_CTX_set_ec_param_enc(context.get(), OPENSSL_EC_NAMED_CURVE) == 1 &&
      EVP_PKEY_keygen(context.get(), &made) == 1;
  key->reset(made);
  if (!is_made ||
      PEM_write_bio_PrivateKey(text.get(), made, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    return Failure("cannot make a key");
  }
  return base::ReplaceFile(path, TextOf(text.get()), kOwnMode);
}

// In whole seconds; 0 for what is no time.
std::int64_t MillisecondsOf(const ASN1_TIME* time) {
  const Time epoch(ASN1_TIME_set(nullptr, 0));
  int days = 0;
  int seconds = 0;
  if (!epoch || ASN1_TIME_diff(&days, &seconds, epoch.get(), time) != 1) return 0;
  constexpr std::int64_t kDayS = 86'400;
  return (days * kDayS + seconds) * 1000;
}

std::string CommonNameOf(X509* certificate) {
  X509_NAME* subject = X509_get_subject_name(certificate);
  const int at = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (at < 0) return {};
  unsigned char* text = nullptr;
  const int size =
      ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at)));
  if (size < 0) return {};
  std::string name(reinterpret_cast<const char*>(text), static_cast<std::size_t>(size));
  OPENSSL_free(text);
  return name;
}

Certificate FactsOf(X509* certificate) {
  return {CommonNameOf(certificate), MillisecondsOf(X509_get0_notBefore(certificate)),
          MillisecondsOf(X509_get0_notAfter(certificate))};
}

// Whether a certificate of `facts` is one of `name` at `now_ms`.
Status Check(const Certificate& facts, const std::string& name, std::int64_t now_ms) {
  if (facts.name != name) {
    return Status::Failed(fmt::format("the certificate is that of \"{}\", and this device is {}",
                                      records::Printable(facts.name), name));
  }
  if (now_ms < facts.not_before_ms) {
    return Status::Failed(
        fmt::format("the certificate holds from {} on, and the clock shows {}: waiting",
                    records::LocalTime(facts.not_before_ms), records::LocalTime(now_ms)));
  }
  if (now_ms > facts.not_after_ms) {
    return Status::Failed(fmt::format(
        "the certificate has expired at {}: renew it (usage-stat-uplink csr, then certificate)",
        records::LocalTime(facts.not_after_ms)));
  }
  return {};
}

}  // namespace

Status MakeRequest(const std::string& name, const CredentialFiles& files, std::string* request) {
  Key key;
  const bool is_there = access(files.key.c_str(), F_OK) == 0;
  RETURN_IF_ERROR(is_there ? ReadKey(files.key, &key) : MakeKey(files.key, &key));
  const Request made(X509_REQ_new());
  const Bio text(BIO_new(BIO_s_mem()));
  const auto* common_name = reinterpret_cast<const unsigned char*>(name.c_str());
  if (!made || !text || X509_REQ_set_version(made.get(), 0) != 1 ||
      X509_NAME_add_entry_by_NID(X509_REQ_get_subject_name(made.get()), NID_commonName,
                                 MBSTRING_ASC, common_name, -1, -1, 0) != 1 ||
      X509_REQ_set_pubkey(made.get(), key.get()) != 1 ||
      X509_REQ_sign(made.get(), key.get(), EVP_sha256()) == 0 ||
      PEM_write_bio_X509_REQ(text.get(), made.get()) != 1) {
    return Failure("cannot make a request");
  }
  *request = TextOf(text.get());
  return {};
}

Status ReadCertificate(const std::string& path, Certificate* certificate) {
  const Bio file(BIO_new_file(path.c_str(), "r"));
  X509Certificate read;
  if (file) read.reset(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
  if (!read) return Failure("cannot read the certificate in " + path);
  *certificate = FactsOf(read.get());
  return {};
}

Status InstallCertificate(const std::string& pem, const std::string& name,
                          const CredentialFiles& files, std::int64_t now_ms) {
  const Bio text = BioOf(pem);
  X509Certificate read;
  if (text) read.reset(PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr));
  if (!read) return Failure("this is no certificate");
  Key key;
  RETURN_IF_ERROR(ReadKey(files.key, &key));
  if (X509_check_private_key(read.get(), key.get()) != 1) {
    return Failure("the certificate is not that of the key in " + files.key);
  }
  RETURN_IF_ERROR(Check(FactsOf(read.get()), name, now_ms));
  return base::ReplaceFile(files.certificate, pem, kOwnMode);
}

Status CheckCredentials(const std::string& name, const CredentialFiles& files,
                        std::int64_t now_ms) {
  if (now_ms < kEarliestMs) {
    return Status::Failed(
        fmt::format("the clock shows {} and was not set: waiting until certificates can be checked",
                    records::LocalTime(now_ms)));
  }
  if (access(files.certificate.c_str(), F_OK) != 0 && errno == ENOENT) {
    return Status::Failed(
        fmt::format("there is no certificate in {}: make a request (usage-stat-uplink csr)",
                    files.certificate));
  }
  Certificate certificate;
  RETURN_IF_ERROR(ReadCertificate(files.certificate, &certificate));
  return Check(certificate, name, now_ms);
}

Status DestroyCredentials(const CredentialFiles& files) {
  RETURN_IF_ERROR(store::ShredFile(files.key));
  return store::ShredFile(files.certificate);
}

}  // namespace velmora::usage_stat::uplink
