# Compiles the sources of a folder together: most of a file's time goes into the templates that all
# of them instantiate. Names inside the anonymous namespaces of a folder must differ, therefore.
# Without KOVA_BY_FOLDER each file is compiled alone, as the linter does.
option(KOVA_BY_FOLDER "compile what is not the server a folder at a time" ON)

# The folders that are named for a platform count as one, apart from the others: that system's
# headers define what the others have as names. Files from outside the caller's folder are compiled
# alone, and those for which the caller sets SKIP_UNITY_BUILD_INCLUSION. The folders after TOGETHER
# count as one, too.
function(kova_compile_by_folder target)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" TOGETHER)
  set_target_properties(${target} PROPERTIES
    UNITY_BUILD ${KOVA_BY_FOLDER} UNITY_BUILD_MODE GROUP)
  get_target_property(files ${target} SOURCES)
  foreach(file ${files})
    cmake_path(ABSOLUTE_PATH file)
    cmake_path(RELATIVE_PATH file BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR} OUTPUT_VARIABLE group)
    cmake_path(GET group PARENT_PATH group)
    if(group MATCHES "^\\.\\.")
      continue()
    endif()
    string(REGEX REPLACE ".*/(posix|win32)$" "\\1" group "${group}")
    if(group IN_LIST ARG_TOGETHER)
      set(group together)
    endif()
    string(REGEX REPLACE "[^A-Za-z0-9]+" "_" group "${group}")
    set_source_files_properties(${file} PROPERTIES UNITY_GROUP "${group}")
  endforeach()
endfunction()
