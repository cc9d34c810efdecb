# Writes the branch, source revision and build time into a source file; run at every build.
#   cmake -DSOURCE_DIR=<tree> -DTEMPLATE=<file.in> -DOUTPUT_FILE=<file> -P GenerateVersion.cmake
# A tree without git still builds, and says so in the revision.
set(TILTHWATCH_BRANCH "unknown")
set(TILTHWATCH_REVISION "unknown (built without git)")

find_program(GIT_EXECUTABLE git)
if(GIT_EXECUTABLE)
  execute_process(COMMAND ${GIT_EXECUTABLE} -C ${SOURCE_DIR} rev-parse --verify HEAD
    OUTPUT_VARIABLE revision OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE revision_result ERROR_QUIET)
  # Only a revision of the tree itself counts, not one of a repository around it.
  execute_process(COMMAND ${GIT_EXECUTABLE} -C ${SOURCE_DIR} rev-parse --show-toplevel
    OUTPUT_VARIABLE toplevel OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE toplevel_result ERROR_QUIET)
  get_filename_component(source_real ${SOURCE_DIR} REALPATH)
  if(toplevel_result EQUAL 0)
    get_filename_component(toplevel ${toplevel} REALPATH)
  endif()
  if(revision_result EQUAL 0 AND revision MATCHES "^[0-9a-f]+$"
     AND toplevel_result EQUAL 0 AND toplevel STREQUAL source_real)
    string(LENGTH "${revision}" revision_length)
    if(revision_length EQUAL 40)
      set(TILTHWATCH_REVISION ${revision})
      # "HEAD" on a detached checkout, as CI has.
      execute_process(COMMAND ${GIT_EXECUTABLE} -C ${SOURCE_DIR} rev-parse --abbrev-ref HEAD
        OUTPUT_VARIABLE branch OUTPUT_STRIP_TRAILING_WHITESPACE
        RESULT_VARIABLE branch_result ERROR_QUIET)
      if(branch_result EQUAL 0 AND NOT branch STREQUAL "")
        set(TILTHWATCH_BRANCH ${branch})
      endif()
    endif()
  endif()
endif()

# Honours SOURCE_DATE_EPOCH for reproducible builds.
string(TIMESTAMP TILTHWATCH_BUILD_TIME "%Y-%m-%dT%H:%M:%SUTC" UTC)

configure_file(${TEMPLATE} ${OUTPUT_FILE} @ONLY)
