# Branch, revision and build time, stamped at every build so they never go stale: only the
# small generated file and the links that use it are redone.
set(TILTHWATCH_VERSION_SOURCE ${CMAKE_BINARY_DIR}/generated/buildversion.cpp)
add_custom_target(tilthwatch_version_stamp
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${PROJECT_SOURCE_DIR}
          -DTEMPLATE=${PROJECT_SOURCE_DIR}/cmake/buildversion.cpp.in
          -DOUTPUT_FILE=${TILTHWATCH_VERSION_SOURCE}
          -P ${PROJECT_SOURCE_DIR}/cmake/GenerateVersion.cmake
  BYPRODUCTS ${TILTHWATCH_VERSION_SOURCE}
  COMMENT "Stamping branch, revision and build time"
  VERBATIM)

add_library(tilthwatch_version STATIC ${TILTHWATCH_VERSION_SOURCE})
add_dependencies(tilthwatch_version tilthwatch_version_stamp)
target_include_directories(tilthwatch_version PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(tilthwatch_version PUBLIC Boost::headers)
