tilthwatch_add_bench(can_service
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/can_service.cpp
  LIBS caninterface canpropertysource telematicscollector)
