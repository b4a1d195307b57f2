# Read by ctest before it runs the tests. What they need of these variables they set themselves.
foreach(variable
    VELMORA_MESSAGE_ENDPOINT CORVANE_ROOT CORVANE_LOG_LEVEL
    USAGE_STAT_DATABASE STATE_DIRECTORY NOTIFY_SOCKET NO_COLOR TZ)
  unset(ENV{${variable}})
endforeach()
