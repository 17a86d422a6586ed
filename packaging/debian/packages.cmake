# SPDX-License-Identifier: Apache-2.0
# Debian packages, one for each component; `./dev packages` makes and tries them.
set(nm_debian "${CMAKE_CURRENT_BINARY_DIR}/debian")
set(nm_package_libraries libnative-migrate${NM_SOVERSION})
set(nm_package_development libnative-migrate-dev)
set(nm_package_programs native-migrate)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME native-migrate)
set(CPACK_PACKAGE_CONTACT "native_migrate maintainers <maintainers@native-migrate.example>")
set(CPACK_COMPONENTS_ALL libraries development programs)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/lib")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS libraries)
set(CPACK_COMPONENT_PROGRAMS_DEPENDS libraries)
# What depends on the version is said when the packages are made.
set(CPACK_PROJECT_CONFIG_FILE "${CMAKE_CURRENT_LIST_DIR}/versions.cmake")

set(CPACK_DEBIAN_LIBRARIES_PACKAGE_NAME ${nm_package_libraries})
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIBRARIES_DESCRIPTION "Programs call the migration service through this library, and read what it
reports. The platform that the library stands on comes with it.")
file(WRITE "${nm_debian}/triggers" "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_CONTROL_EXTRA "${nm_debian}/triggers")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${nm_package_development})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers, examples, and the files by which CMake and pkg-config find the
library. The testing kit stands in for manager and service in tests.")

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME ${nm_package_programs})
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION admin)
set(CPACK_COMPONENT_PROGRAMS_DESCRIPTION "The manager starts system services on demand; the migration service moves
packages from one directory to another; migratectl controls it from the
command line, and vexa-session runs a program with a manager of its own.")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_DEPENDS
    "init-system-helpers (>= 1.62), systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles")

# Scripts of the maintainer, and the list of files whose changes an upgrade keeps.
foreach(script postinst prerm postrm)
    configure_file(debian/${script} "${nm_debian}/${script}" COPYONLY
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()
file(WRITE "${nm_debian}/conffiles" "/etc/default/samgrd\n")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_CONTROL_EXTRA
    "${nm_debian}/postinst" "${nm_debian}/prerm" "${nm_debian}/postrm" "${nm_debian}/conffiles")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# What each Debian package has in its folder of documentation.
find_program(NM_GZIP gzip)
# The day of the version and not of the build, so that two builds are equal.
set(NM_DATE "Thu, 26 Nov 2026 12:00:00 +0000")
configure_file(debian/changelog.in "${nm_debian}/changelog.Debian" @ONLY)
execute_process(COMMAND ${NM_GZIP} -9 -n -f "${nm_debian}/changelog.Debian" COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${NM_GZIP} -9 -n -c "${PROJECT_SOURCE_DIR}/CHANGELOG.md" OUTPUT_FILE "${nm_debian}/changelog.gz"
    COMMAND_ERROR_IS_FATAL ANY)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    install(FILES debian/copyright "${nm_debian}/changelog.Debian.gz" "${nm_debian}/changelog.gz"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${nm_package_${component}}" COMPONENT ${component})
endforeach()

include(CPack)
