tilthwatch_add_bench(telematics_delivery
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/telematics_delivery.cpp
  LIBS telematicscollector ice_thrift)
