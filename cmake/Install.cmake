# What is installed, in two components, and the Debian packages made of them
# by `cpack -G DEB`:
#   tools  vantrel: the tools, the store's schema and demonstration, the
#          document type, the report stylesheet, the manual pages
#   dev    vantrel-dev: the object-model library, its headers and the CMake
#          package (Vantrel::objectmodel)

install(TARGETS Vantrel vantrel-doc RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        COMPONENT tools)
install(FILES objectmodel/sql/schema.sql objectmodel/sql/demo.sql
              ${VANTREL_GENERATED_SHARE}/KivAdmin.dtd
              ${VANTREL_GENERATED_SHARE}/vantrel-report.xsl
              ${VANTREL_GENERATED_SHARE}/vantrel-doc.schema.json
              ${VANTREL_GENERATED_SHARE}/vantrel-plan.schema.json
              ${VANTREL_GENERATED_SHARE}/vantrel-log.schema.json
        DESTINATION ${CMAKE_INSTALL_DATADIR}/vantrel COMPONENT tools)
# Where bash-completion looks for a command's completion.
install(FILES share/completion/vantrel-doc
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        COMPONENT tools)

# Manual pages are installed compressed, as Debian expects; gzip -n keeps the
# bytes the same from build to build.
find_program(GZIP gzip REQUIRED)
set(manuals Vantrel.1 vantrel-doc.1)
set(compressed)
foreach(page ${manuals})
  set(gz ${CMAKE_BINARY_DIR}/man/${page}.gz)
  add_custom_command(OUTPUT ${gz}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND ${GZIP} -9n -c ${CMAKE_SOURCE_DIR}/share/man/${page} > ${gz}
    DEPENDS share/man/${page} VERBATIM)
  list(APPEND compressed ${gz})
endforeach()
# The Debian changelog, compressed likewise.
set(changelog ${CMAKE_BINARY_DIR}/debian/changelog.gz)
add_custom_command(OUTPUT ${changelog}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/debian
  COMMAND ${GZIP} -9n -c ${CMAKE_SOURCE_DIR}/share/debian/changelog
          > ${changelog}
  DEPENDS share/debian/changelog VERBATIM)
add_custom_target(compressed_docs ALL DEPENDS ${compressed} ${changelog})
install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT tools)

set_target_properties(objectmodel PROPERTIES OUTPUT_NAME vantrel_objectmodel)
set_target_properties(objectmodel_support PROPERTIES
  OUTPUT_NAME vantrel_objectmodel_support)
install(TARGETS objectmodel objectmodel_support EXPORT VantrelTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(DIRECTORY objectmodel/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vantrel COMPONENT dev)
install(EXPORT VantrelTargets NAMESPACE Vantrel::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Vantrel COMPONENT dev)
include(CMakePackageConfigHelpers)
configure_package_config_file(share/VantrelConfig.cmake.in
  ${CMAKE_BINARY_DIR}/VantrelConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Vantrel)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/VantrelConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/VantrelConfig.cmake
              ${CMAKE_BINARY_DIR}/VantrelConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Vantrel COMPONENT dev)

# Each package's copyright and changelog, where Debian looks for them.
foreach(package vantrel vantrel-dev)
  if(package STREQUAL "vantrel")
    set(component tools)
  else()
    set(component dev)
  endif()
  install(FILES share/debian/copyright ${changelog}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
          COMPONENT ${component})
endforeach()
# The history's layout, which the manual page points to.
install(FILES docs/history.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/vantrel
        COMPONENT tools)

set(CPACK_PACKAGE_NAME vantrel)
set(CPACK_PACKAGE_VENDOR "Vantrel developers")
set(CPACK_PACKAGE_CONTACT
    "Vantrel developers <developers@vantrel.example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL tools dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vantrel)
# The libraries the tools link (SQLite, libxml2, libxslt, Graphviz) are
# found by dpkg-shlibdeps.
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS
    "sqlite3, libxml2-utils, xsltproc, jq, bash-completion")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"export, check, compare and load administration configurations
Vantrel exports the whole administration configuration of a product-data
management system (projects, domains, servers, hosts, replication targets
and subscriptions, package definitions, sites) into one XML document,
AdminObjects, that other programs read back as a graph.
.
vantrel-doc checks such documents, compares two of them and loads one into
a new administration store. The package also holds the store's schema, the
document type and an HTML report stylesheet.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME vantrel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libsqlite3-dev (>= 3.37)")
set(CPACK_COMPONENT_DEV_DESCRIPTION
"object-model library of Vantrel, for programs of your own
The administration object-model library that Vantrel is written against,
with its headers and a CMake package (find_package(Vantrel), target
Vantrel::objectmodel): it serves an administration store kept in SQLite,
and writes new stores.")
include(CPack)
