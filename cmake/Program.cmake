# The run function lives in a library of its own so tests can drive it in-process or from a
# test executable.
add_library(tilthwatch_run STATIC ${PROJECT_SOURCE_DIR}/telematicsloop.cpp
  ${PROJECT_SOURCE_DIR}/telematicsschema.cpp)
target_include_directories(tilthwatch_run PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(tilthwatch_run
  PUBLIC canpropertysource telematicscollector telemalog proto_tilthwatch log4cplus::log4cplus
         Threads::Threads)

include(${PROJECT_SOURCE_DIR}/cmake/Version.cmake)

# Command line and logging set-up, apart from main so tests can call it with their own paths.
add_library(tilthwatch_shell STATIC ${PROJECT_SOURCE_DIR}/commandlineparser.cpp
  ${PROJECT_SOURCE_DIR}/thriftlogging.cpp)
target_include_directories(tilthwatch_shell PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(tilthwatch_shell
  PUBLIC Boost::program_options log4cplus::log4cplus PkgConfig::THRIFT
  PRIVATE tilthwatch_version)

# The service executable.
add_executable(tilthwatch ${PROJECT_SOURCE_DIR}/main.cpp)
target_link_libraries(tilthwatch PRIVATE tilthwatch_shell tilthwatch_run log4cplus::log4cplus)
install(TARGETS tilthwatch RUNTIME DESTINATION bin)
