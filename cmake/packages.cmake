# Archives and packages, made by cpack: a TGZ and a DEB on Linux, a ZIP for Windows.
#
# With SOURCE_DATE_EPOCH in the environment, of the build too, the same tree gives the same bytes.
#
# Components: "Unspecified" is in all of them, "archive" in the archives alone, "debian" in the DEB
# alone. What "cmake --install" without a component puts into a folder has nothing of "debian".

set(CPACK_PACKAGE_NAME kova-mcp)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR kova-mcp)
set(KOVA_MAINTAINER "kova-mcp maintainers <maintainers@kova-mcp.invalid>" CACHE STRING
  "who maintains the packages: NAME <ADDRESS>")
set(CPACK_PACKAGE_CONTACT "${KOVA_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Model Context Protocol server for SQL databases")
set(CPACK_STRIP_FILES ON)
set(CPACK_ARCHIVE_THREADS 1)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/package_contents.cmake)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/package_folders.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/sort_archives.cmake)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME kova-mcp-${PROJECT_VERSION}-windows-x86_64)
else()
  set(CPACK_GENERATOR TGZ DEB)
  set(CPACK_PACKAGE_FILE_NAME kova-mcp-${PROJECT_VERSION}-linux-x86_64)
endif()

# The manual pages

find_program(KOVA_SCDOC scdoc REQUIRED)
find_program(KOVA_GROFF groff REQUIRED)
set(KOVA_MAN_FOLDER ${CMAKE_CURRENT_BINARY_DIR}/man)
file(MAKE_DIRECTORY ${KOVA_MAN_FOLDER})
set(KOVA_MAN_PAGES "")
foreach(page kova-mcp.1 kova-admin.1 kova-mcp-policy.5)
  set(source ${CMAKE_CURRENT_SOURCE_DIR}/docs/man/${page}.scd)
  set(made ${KOVA_MAN_FOLDER}/${page})
  # scdoc writes the date of SOURCE_DATE_EPOCH.
  add_custom_command(OUTPUT ${made} ${made}.gz ${made}.txt
    COMMAND ${KOVA_SCDOC} < ${source} > ${made}
    COMMAND gzip -9nc ${made} > ${made}.gz
    COMMAND ${KOVA_GROFF} -man -Kutf8 -Tascii -P-cbou ${made} > ${made}.txt
    DEPENDS ${source} VERBATIM)
  list(APPEND KOVA_MAN_PAGES ${made})
  string(REGEX REPLACE ".*\\." "" chapter ${page})
  if(WIN32)
    install(FILES ${made}.txt DESTINATION ${KOVA_INSTALL_DOCUMENTS}/man)
  else()
    install(FILES ${made}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${chapter})
  endif()
endforeach()
add_custom_target(kova-man ALL DEPENDS ${KOVA_MAN_PAGES})

# What the DEB has beside this. Nothing in it starts a service.

if(NOT WIN32)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # For the account and its folders; the units are those of systemd.
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles")
  set(CPACK_DEBIAN_PACKAGE_SUGGESTS "logrotate, nginx | haproxy")
  set(CPACK_DEBIAN_PACKAGE_SECTION database)
  set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
  set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
  set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "kova-mcp stands between an AI client and an SQL database. Every call is
bounded, checked against a policy, run in a process of its own,
cancellable, and recorded in an audit file.
.
kova-admin is the operator's tool: it sets up a deployment, examines it,
and approves single writes.
.
The package starts nothing by itself. The engine's client library is not
part of it.")
  set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/debian/conffiles ${CMAKE_CURRENT_LIST_DIR}/debian/postinst
    ${CMAKE_CURRENT_LIST_DIR}/debian/prerm ${CMAKE_CURRENT_LIST_DIR}/debian/postrm)

  # Debian's form, with the date of SOURCE_DATE_EPOCH.
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  set(changelog ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog)
  file(WRITE ${changelog} "kova-mcp (${PROJECT_VERSION}) stable; urgency=medium

  * CHANGELOG.md beside this file says what has changed.

 -- ${KOVA_MAINTAINER}  ${date}
")
  add_custom_command(OUTPUT ${changelog}.gz COMMAND gzip -9nc ${changelog} > ${changelog}.gz
    DEPENDS ${changelog} VERBATIM)
  add_custom_target(kova-debian-changelog ALL DEPENDS ${changelog}.gz)

  install(FILES ${changelog}.gz DESTINATION ${KOVA_INSTALL_DOCUMENTS}
    COMPONENT debian EXCLUDE_FROM_ALL)
  install(FILES cmake/debian/copyright DESTINATION ${KOVA_INSTALL_DOCUMENTS}
    COMPONENT debian EXCLUDE_FROM_ALL)
  install(FILES cmake/debian/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
    RENAME kova-mcp COMPONENT debian EXCLUDE_FROM_ALL)
  install(FILES completions/_kova-mcp completions/_kova-admin
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT debian EXCLUDE_FROM_ALL)
  install(FILES deploy/kova-mcp-http@.service DESTINATION lib/systemd/system
    COMPONENT debian EXCLUDE_FROM_ALL)
  install(FILES deploy/kova-mcp.sysusers DESTINATION lib/sysusers.d RENAME kova-mcp.conf
    COMPONENT debian EXCLUDE_FROM_ALL)
  install(FILES deploy/kova-mcp.tmpfiles DESTINATION lib/tmpfiles.d RENAME kova-mcp.conf
    COMPONENT debian EXCLUDE_FROM_ALL)
  # Where lnav looks for the formats of all accounts; the archives have it below deploy/ alone.
  install(FILES deploy/lnav/kova_mcp_audit.json DESTINATION /etc/lnav/formats/kova_mcp
    COMPONENT debian EXCLUDE_FROM_ALL)
  install(FILES deploy/kova-mcp.logrotate DESTINATION /etc/logrotate.d RENAME kova-mcp
    COMPONENT debian EXCLUDE_FROM_ALL)
endif()

include(CPack)
