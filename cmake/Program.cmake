# The service executable. Its sources grow as the subsystems it joins arrive.
set(TILTHWATCH_PROGRAM_SOURCES ${PROJECT_SOURCE_DIR}/main.cpp)
add_executable(tilthwatch ${TILTHWATCH_PROGRAM_SOURCES})
target_include_directories(tilthwatch PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(tilthwatch PRIVATE log4cplus::log4cplus)
install(TARGETS tilthwatch RUNTIME DESTINATION bin)
