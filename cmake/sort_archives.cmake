# Run by cpack after each generator: its archives in the same order, with the same times, everywhere.
set(kova_archives ${CPACK_PACKAGE_FILES})
list(FILTER kova_archives INCLUDE REGEX "\\.(tar\\.gz|zip)$")
if(kova_archives)
  execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/../scripts/sort_archive.py ${kova_archives}
    COMMAND_ERROR_IS_FATAL ANY)
endif()
