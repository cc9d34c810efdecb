tilthwatch_add_bench(canstack_claim_flood
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/canstack_claim_flood.cpp
  LIBS canstack)
