// The road between a device and its fleet. Everything that MQTT is stays behind this: both sides
// know a channel that takes messages to topics and brings those of topics that they follow.

#ifndef FLEET_TRANSPORT_CHANNEL_H_
#define FLEET_TRANSPORT_CHANNEL_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/base/status.h"

namespace velmora::usage_stat::fleet {

// Where a device's batches go, and where its receipts come from.
std::string UpTopic(const std::string& name);
std::string DownTopic(const std::string& name);
// The name in an up topic; empty when it is none.
std::string NameInUpTopic(const std::string& topic);

// Which broker, and who we are there. Files are in PEM format.
struct BrokerOptions {
  std::string host = "localhost";
  int port = 8883;
  std::string client_id;
  // Of the authority that signed the broker's certificate. Empty: no TLS at all.
  std::string ca_file;
  std::string certificate_file;  // ours; empty: we show none
  std::string key_file;
};

struct Message {
  std::string topic;
  std::string payload;
};

// One connection, with a session that ends with it. For one thread.
class Channel {
 public:
  // Connects and waits until the broker has let us in, at most `timeout_ms` beyond what the
  // system's own connect takes.
  static base::Status Open(const BrokerOptions& options, int timeout_ms,
                           std::unique_ptr<Channel>* channel);
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // Follows the topics that match `filter` and waits until the broker has agreed.
  base::Status Follow(const std::string& filter, int timeout_ms);

  // Hands a message over, to be delivered at least once. Nothing is known about it afterwards: that
  // a broker has taken it does not say that anybody got it.
  base::Status Send(const std::string& topic, const std::string& payload);

  // Waits for a message for at most `timeout_ms` and adds it to `messages`, with all that are there
  // by then, up to `most`.
  base::Status Receive(int timeout_ms, std::size_t most, std::vector<Message>* messages);

  // How many of the messages sent the broker has taken, for a trial of what that is worth.
  std::uint64_t taken() const;

  // Says good-bye, after what was sent has left.
  void Close();

 private:
  struct Session;
  explicit Channel(std::unique_ptr<Session> session);
  base::Status Wait(int timeout_ms, const bool* done, const char* for_what);

  std::unique_ptr<Session> session_;
};

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_TRANSPORT_CHANNEL_H_
