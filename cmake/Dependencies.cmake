# Every dependency comes from the system; nothing is vendored.
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS program_options filesystem)
# Boost's JSON parser still includes the old bind header, which asks for this choice with a
# pragma message in every file that includes it. Empty, so a source that defines it agrees.
add_compile_definitions(BOOST_BIND_GLOBAL_PLACEHOLDERS=)
find_package(log4cplus REQUIRED)
find_package(Protobuf REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(THRIFT REQUIRED IMPORTED_TARGET thrift)
pkg_check_modules(ZMQ REQUIRED IMPORTED_TARGET libzmq)
find_path(CPPZMQ_INCLUDE_DIR zmq.hpp REQUIRED)
find_program(THRIFT_COMPILER thrift REQUIRED)

if(NOT TARGET tilthwatch_zmq)
  add_library(tilthwatch_zmq INTERFACE)
  target_link_libraries(tilthwatch_zmq INTERFACE PkgConfig::ZMQ)
  target_include_directories(tilthwatch_zmq SYSTEM INTERFACE ${CPPZMQ_INCLUDE_DIR})
endif()

if(TILTHWATCH_TESTS)
  find_package(GTest REQUIRED)
endif()
if(TILTHWATCH_BENCH AND NOT TILTHWATCH_TSAN)
  find_package(benchmark REQUIRED)
endif()
