#include <pthread.h>
#include <unistd.h>

#include "corvane/corvane.h"

int g_process_pid = 0;

namespace {

void StoreProcessId() { g_process_pid = getpid(); }

[[gnu::constructor]] void FollowForks() {
  StoreProcessId();
  pthread_atfork(nullptr, nullptr, StoreProcessId);
}

}  // namespace
