# Debian packages: cpack -G DEB, in the build directory. See Install.cmake for their contents.

# Who builds the package stands for it; git knows who that is.
execute_process(COMMAND git config user.name WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}" OUTPUT_VARIABLE name
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE ignored)
execute_process(COMMAND git config user.email WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}" OUTPUT_VARIABLE email
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE ignored)
if(NOT name OR NOT email)
  set(name "unknown")
  set(email "root@localhost")
endif()

# The changelog in Debian's form.
execute_process(COMMAND git log -1 --format=%aD WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}" OUTPUT_VARIABLE date
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE ignored)
set(changelog "${PROJECT_BINARY_DIR}/packaging/changelog.gz")
file(WRITE "${PROJECT_BINARY_DIR}/packaging/changelog"
     "tunnel-agent (${PROJECT_VERSION}) unstable; urgency=medium\n\n"
     "  * See CHANGELOG.md for what is new.\n\n -- ${name} <${email}>  ${date}\n")
execute_process(COMMAND gzip -9nkf "${PROJECT_BINARY_DIR}/packaging/changelog" COMMAND_ERROR_IS_FATAL ANY)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tunnel-agent)
set(CPACK_PACKAGE_CONTACT "${name} <${email}>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "tunnel agent of a router")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL agent development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

set(CPACK_DEBIAN_AGENT_PACKAGE_NAME tunnel-agent)
set(CPACK_DEBIAN_AGENT_PACKAGE_SECTION net)
set(CPACK_DEBIAN_AGENT_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS adduser)
set(CPACK_DEBIAN_AGENT_PACKAGE_SUGGESTS graphviz)
set(CPACK_COMPONENT_AGENT_DESCRIPTION "Builds tunnel RIBs and the tunnel FIB from the tables that routing protocols
share with it, and keeps them in force when it stops. With the operator's
program tunnelctl, which shows and explains what has been programmed.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtunnel-agent-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "The state machines of the tunnel agent as a C++20 library for other programs,
with headers and what find_package() of CMake needs.")

# Debian's rules for what comes with a package: its scripts, and which of its files are the operator's.
set(control "${PROJECT_BINARY_DIR}/packaging/debian")
foreach(file postinst prerm postrm conffiles)
  configure_file("packaging/debian/${file}" "${control}/${file}" COPYONLY)
  list(APPEND CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA "${control}/${file}")
endforeach()
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
