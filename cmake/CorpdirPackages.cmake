# Debian packages, one for each component: scripts/package.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME corpdir)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "corpdir maintainers <maintainers@corpdir.example>")
set(CPACK_PACKAGE_VENDOR corpdir)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# No symbols file: the interface is a class's virtual table, which can grow without a new symbol.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
set(_debian ${PROJECT_SOURCE_DIR}/packaging/debian)
set(_exact "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

# corpdir_package(COMPONENT PACKAGE SECTION SYNOPSIS text DESCRIPTION paragraphs ...
#                 [SETTINGS NAME=value ...]): the package of a component, when something is
# installed in it. NAME=value sets CPACK_DEBIAN_<COMPONENT>_PACKAGE_<NAME>.
get_cmake_property(_components COMPONENTS)
set(CPACK_COMPONENTS_ALL "")
macro(corpdir_package component package section)
  if(${component} IN_LIST _components)
    cmake_parse_arguments(_package "" "SYNOPSIS" "DESCRIPTION;SETTINGS" ${ARGN})
    list(APPEND CPACK_COMPONENTS_ALL ${component})
    string(TOUPPER ${component} _name)
    set(_name CPACK_DEBIAN_${_name})
    set(${_name}_PACKAGE_NAME ${package})
    set(${_name}_PACKAGE_SECTION ${section})
    # CPack takes the first line for the synopsis.
    string(REPLACE ";" "\n\n" _text "${_package_DESCRIPTION}")
    set(${_name}_DESCRIPTION "${_package_SYNOPSIS}\n${_text}")
    foreach(_setting IN LISTS _package_SETTINGS)
      string(REGEX MATCH "^([A-Z_]+)=(.*)$" _ "${_setting}")
      set(${_name}_PACKAGE_${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
    endforeach()
  endif()
endmacro()

# Line breaks as in the packages.
set(_about "corpdir keeps a corporate directory file on the device current: it
fetches a small version file from an FTP or FTPS server, compares it with
the version accepted last, and fetches the directory file when it changed.
When a server fails it uses the next one of a list.")
set(_library libcorpdir${PROJECT_VERSION_MAJOR})

corpdir_package(runtime ${_library} libs
  SYNOPSIS "corporate directory download service - shared library"
  DESCRIPTION "${_about}" "This package contains the shared libraries that applications load, one for
C++ and one for C and other languages."
  SETTINGS SHLIBDEPS=ON CONTROL_EXTRA=${_debian}/triggers)
corpdir_package(development libcorpdir-dev libdevel
  SYNOPSIS "corporate directory download service - development files"
  DESCRIPTION "${_about}" "This package contains the headers, the static library, the CMake package
and the pkg-config files. Linking the static library needs the suggested
packages."
  SETTINGS "DEPENDS=${_library} ${_exact}"
           "SUGGESTS=libssl-dev")
corpdir_package(tools corpdir-tools net
  SYNOPSIS "corporate directory download service - command-line program"
  DESCRIPTION "${_about}" "This package contains the corpdir program, which fetches the directory once
or keeps it current, and checks servers. It also contains a unit for systemd,
corpdir-watch@.service, which keeps a directory current as a service."
  SETTINGS SHLIBDEPS=ON "DEPENDS=systemd-standalone-sysusers | systemd-sysusers")
corpdir_package(python python3-corpdir python
  SYNOPSIS "corporate directory download service - Python package"
  DESCRIPTION "${_about}" "This package contains the Python 3 package corpdir: a blocking client
and one for asyncio."
  SETTINGS ARCHITECTURE=all "DEPENDS=python3:any, ${_library} (>= ${PROJECT_VERSION})")

# They create the service's user, restart and stop the service.
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
  "${_debian}/tools/postinst;${_debian}/tools/prerm;${_debian}/tools/postrm")
# They compile the modules and remove the compiled files.
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
  "${_debian}/python/postinst;${_debian}/python/prerm")

set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/CorpdirFinishPackages.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CPACK_PRE_BUILD_SCRIPTS})
# For that script: CPack passes only variables that begin with CPACK_.
set(CPACK_CORPDIR_SCRIPTS ${_debian})
set(CPACK_VERBATIM_VARIABLES ON)
include(CPack)
