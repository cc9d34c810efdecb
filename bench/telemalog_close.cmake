tilthwatch_add_bench(telemalog_close SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/telemalog_close.cpp LIBS telemalog)
