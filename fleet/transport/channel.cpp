#include "fleet/transport/channel.h"

#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "tools/base/system.h"

namespace velmora::usage_stat::fleet {

using base::Status;

namespace {

constexpr std::string_view kPrefix = "usage/1/";
constexpr std::string_view kUp = "/up";
constexpr std::string_view kDown = "/down";
constexpr std::size_t kNameSize = 32;
constexpr int kKeepAliveS = 60;
constexpr int kAtLeastOnce = 1;
constexpr int kRefusedSubscription = 0x80;

}  // namespace

std::string UpTopic(const std::string& name) {
  return std::string(kPrefix).append(name).append(kUp);
}

std::string DownTopic(const std::string& name) {
  return std::string(kPrefix).append(name).append(kDown);
}

std::string NameInUpTopic(const std::string& topic) {
  if (topic.size() != kPrefix.size() + kNameSize + kUp.size() || !topic.starts_with(kPrefix) ||
      !topic.ends_with(kUp)) {
    return {};
  }
  const std::string name = topic.substr(kPrefix.size(), kNameSize);
  return name.find_first_not_of("0123456789abcdef") == std::string::npos ? name : std::string();
}

// What the library's callbacks fill.
struct Channel::Session {
  Session() {
    static const int initialized = mosquitto_lib_init();
    (void)initialized;
  }
  ~Session() { mosquitto_destroy(client); }

  mosquitto* client = nullptr;
  std::vector<Message> received;
  std::uint64_t sent = 0;
  std::uint64_t taken = 0;
  bool shows_certificate = false;
  bool connected = false;
  bool agreed = false;
  std::string refusal;  // why the broker would not have us, or not have us follow
  std::string error;    // what the library last logged as one: TLS tells its reasons nowhere else

  Status Failure(const std::string& what, int result) const {
    // The library leaves errno to those failures that are the system's.
    std::string reason =
        result == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(result);
    if (!error.empty()) {
      reason.append(" (").append(error).append(")");
    } else if (shows_certificate && !connected) {
      // The broker's own words get lost when it hangs up before we have said all of ours.
      reason.append(" (the broker may not take our certificate; its log tells)");
    }
    return Status::Failed(what + ": " + reason);
  }
};

Channel::Channel(std::unique_ptr<Session> session) : session_(std::move(session)) {}

Channel::~Channel() = default;

Status Channel::Open(const BrokerOptions& options, int timeout_ms,
                     std::unique_ptr<Channel>* channel) {
  std::unique_ptr<Channel> opened(new Channel(std::make_unique<Session>()));
  Session* session = opened->session_.get();
  const std::string where = options.host + ":" + std::to_string(options.port);
  session->client = mosquitto_new(options.client_id.c_str(), /*clean_session=*/true, session);
  if (!session->client) return Status::Errno("cannot make an MQTT client");

  mosquitto_log_callback_set(session->client,
                             [](mosquitto*, void* self, int level, const char* line) {
                               if (level == MOSQ_LOG_ERR) static_cast<Session*>(self)->error = line;
                             });
  mosquitto_connect_callback_set(session->client, [](mosquitto*, void* self, int code) {
    auto* s = static_cast<Session*>(self);
    if (code != 0) s->refusal = mosquitto_connack_string(code);
    s->connected = code == 0;
  });
  mosquitto_subscribe_callback_set(
      session->client, [](mosquitto*, void* self, int, int count, const int* granted) {
        auto* s = static_cast<Session*>(self);
        const bool refused = std::any_of(granted, granted + count,
                                         [](int qos) { return qos >= kRefusedSubscription; });
        if (refused) s->refusal = "the broker does not let us follow the topic";
        s->agreed = !refused;
      });
  mosquitto_message_callback_set(
      session->client, [](mosquitto*, void* self, const mosquitto_message* message) {
        // What a broker has kept for later comers tells of a past that is over.
        if (message->retain) return;
        static_cast<Session*>(self)->received.push_back(
            {message->topic, std::string(static_cast<const char*>(message->payload),
                                         static_cast<std::size_t>(message->payloadlen))});
      });
  mosquitto_publish_callback_set(
      session->client, [](mosquitto*, void* self, int) { ++static_cast<Session*>(self)->taken; });

  if (!options.ca_file.empty()) {
    session->shows_certificate = !options.certificate_file.empty();
    const auto file = [](const std::string& path) { return path.empty() ? nullptr : path.c_str(); };
    const int result =
        mosquitto_tls_set(session->client, options.ca_file.c_str(), nullptr,
                          file(options.certificate_file), file(options.key_file), nullptr);
    if (result != MOSQ_ERR_SUCCESS) return session->Failure("cannot use the certificates", result);
    mosquitto_int_option(session->client, MOSQ_OPT_TLS_USE_OS_CERTS, 0);
    mosquitto_tls_opts_set(session->client, /*verify=*/1, "tlsv1.2", nullptr);
  }
  // A message is small and waited for: it must not wait itself for more to be sent.
  mosquitto_int_option(session->client, MOSQ_OPT_TCP_NODELAY, 1);
  const int result =
      mosquitto_connect(session->client, options.host.c_str(), options.port, kKeepAliveS);
  if (result != MOSQ_ERR_SUCCESS)
    return session->Failure("cannot connect to the broker " + where, result);
  RETURN_IF_ERROR(opened->Wait(timeout_ms, &session->connected, "the broker to let us in"));
  *channel = std::move(opened);
  return {};
}

// Runs the connection until `*done`.
Status Channel::Wait(int timeout_ms, const bool* done, const char* for_what) {
  const std::int64_t end_ms = base::BootMs() + timeout_ms;
  while (!*done) {
    const std::int64_t left_ms = end_ms - base::BootMs();
    if (left_ms <= 0) return Status::Failed(std::string("waited in vain for ") + for_what);
    const int result = mosquitto_loop(session_->client, static_cast<int>(left_ms), 1);
    if (!session_->refusal.empty()) {
      return Status::Failed("the broker refuses: " + session_->refusal);
    }
    if (result != MOSQ_ERR_SUCCESS) return session_->Failure("the broker hung up", result);
  }
  return {};
}

Status Channel::Follow(const std::string& filter, int timeout_ms) {
  session_->agreed = false;
  const int result = mosquitto_subscribe(session_->client, nullptr, filter.c_str(), kAtLeastOnce);
  if (result != MOSQ_ERR_SUCCESS) return session_->Failure("cannot follow " + filter, result);
  return Wait(timeout_ms, &session_->agreed, "the broker to agree to a subscription");
}

Status Channel::Send(const std::string& topic, const std::string& payload) {
  const int result =
      mosquitto_publish(session_->client, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                        payload.data(), kAtLeastOnce, /*retain=*/false);
  if (result != MOSQ_ERR_SUCCESS) return session_->Failure("cannot send", result);
  ++session_->sent;
  return {};
}

Status Channel::Receive(int timeout_ms, std::size_t most, std::vector<Message>* messages) {
  std::vector<Message>& received = session_->received;
  const std::int64_t end_ms = base::BootMs() + timeout_ms;
  for (std::size_t before = 0; received.size() < most;) {
    before = received.size();
    const std::int64_t left_ms =
        before == 0 ? std::max<std::int64_t>(end_ms - base::BootMs(), 0) : 0;
    const int result = mosquitto_loop(session_->client, static_cast<int>(left_ms), 1);
    if (result != MOSQ_ERR_SUCCESS) return session_->Failure("the broker hung up", result);
    if (received.size() == before && (before != 0 || base::BootMs() >= end_ms)) break;
  }
  std::ranges::move(received, std::back_inserter(*messages));
  received.clear();
  return {};
}

std::uint64_t Channel::taken() const { return session_->taken; }

void Channel::Close() {
  constexpr int kPatienceMs = 2000;
  const std::int64_t end_ms = base::BootMs() + kPatienceMs;
  while (session_->taken < session_->sent && base::BootMs() < end_ms) {
    if (mosquitto_loop(session_->client, 100, 1) != MOSQ_ERR_SUCCESS) return;
  }
  mosquitto_disconnect(session_->client);
  (void)mosquitto_loop(session_->client, 0, 1);
}

}  // namespace velmora::usage_stat::fleet
