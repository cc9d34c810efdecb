tilthwatch_add_bench(daemon_load
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/daemon_load.cpp
  LIBS Threads::Threads)
add_dependencies(daemon_load tilthwatch fake_socketcan)
target_compile_definitions(daemon_load PRIVATE
  TILTHWATCH_SERVICE="$<TARGET_FILE:tilthwatch>"
  FAKE_SOCKETCAN_LIBRARY="$<TARGET_FILE:fake_socketcan>")
