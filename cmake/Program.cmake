# The run function lives in a library of its own so tests can drive it in-process or from a
# test executable.
add_library(tilthwatch_run STATIC ${PROJECT_SOURCE_DIR}/telematicsloop.cpp
  ${PROJECT_SOURCE_DIR}/telematicsschema.cpp)
target_include_directories(tilthwatch_run PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(tilthwatch_run
  PUBLIC canpropertysource telematicscollector telemalog proto_tilthwatch log4cplus::log4cplus
         Threads::Threads)

# The service executable. Its sources grow as the subsystems it joins arrive.
set(TILTHWATCH_PROGRAM_SOURCES ${PROJECT_SOURCE_DIR}/main.cpp)
add_executable(tilthwatch ${TILTHWATCH_PROGRAM_SOURCES})
target_include_directories(tilthwatch PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(tilthwatch PRIVATE tilthwatch_run log4cplus::log4cplus)
install(TARGETS tilthwatch RUNTIME DESTINATION bin)
