tilthwatch_add_bench(canstack_receive
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/canstack_receive.cpp
  LIBS canstack)
