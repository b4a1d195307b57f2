// Delivery of one message at a time to a local endpoint.
//
// This header is the contract between the statistics library and the platform. On a device the
// firmware brings the implementation; the host implementation lives in platform/common_utilities.

#ifndef COMMON_UTILITIES_MESSAGE_CLIENT_H_
#define COMMON_UTILITIES_MESSAGE_CLIENT_H_

namespace velmora::utilities {

// A sender to one endpoint. Every operation returns 0 on success and a positive errno value on
// failure, leaves the caller's `errno` as it was, throws nothing and raises no signal. Different
// clients may be used from different threads at once; one client belongs to one thread.
class __attribute__((visibility("default"))) MessageClient {
 public:
  // An unconnected client. Cannot fail.
  MessageClient();

  // Releases whatever Init acquired.
  // NOLINTNEXTLINE(performance-trivially-destructible): another implementation may hold something
  ~MessageClient();

  MessageClient(const MessageClient&) = delete;
  MessageClient& operator=(const MessageClient&) = delete;

  // Prepares to send to the endpoint whose name is the `name_length` bytes at `name`, NULs
  // included; the name is copied. Messages of up to `capacity` bytes can then be sent.
  //
  // The host implementation lets the environment variable VELMORA_MESSAGE_ENDPOINT, when it is set
  // and not empty, name another endpoint: a NUL, its text, a NUL. Programs that run with more
  // rights than their user (set-user-id) take no notice of it.
  //
  // EINVAL: `name` is null or empty. ENAMETOOLONG: the name does not fit a socket address. A failed
  // Init leaves the client as it was.
  int Init(const char* name, unsigned int name_length, unsigned int capacity);

  // Delivers the `size` bytes at `data` as one message, whole or not at all. Waits for a full
  // receiver for 100 ms, which the kernel's timers may make up to 110 (and for a processor to run
  // on).
  //
  // EMSGSIZE: more than `capacity` bytes. ECONNREFUSED: nobody listens. EAGAIN: the receiver stayed
  // full. ENOTCONN: no successful Init came before. EINVAL: `data` is null and `size` is not 0.
  // Other values are those of socket(2) and sendto(2), such as EMFILE when descriptors run out.
  int SendMessage(const char* data, unsigned int size);

 private:
  // The address of the endpoint, ready for the kernel (sockaddr_un has this size), and its length.
  // Both ends of the binary interface depend on this layout: change it with the soname.
  static constexpr unsigned int kAddressSize = 110;
  alignas(8) unsigned char address_[kAddressSize];
  unsigned int address_length_;
  unsigned int capacity_;
};

}  // namespace velmora::utilities

#endif  // COMMON_UTILITIES_MESSAGE_CLIENT_H_
