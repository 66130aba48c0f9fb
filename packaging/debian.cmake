# What only the Debian package holds, and how CPack makes it; tools/package does both.

# The package's version and its date come from its changelog.
file(STRINGS changelog newest_entry LIMIT_COUNT 1)
if(NOT newest_entry MATCHES "^setupmend \\((.+)-([^-]+)\\) ")
    message(FATAL_ERROR "packaging/changelog: no version in the first line: ${newest_entry}")
endif()
set(package_release ${CMAKE_MATCH_2})
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "packaging/changelog describes ${CMAKE_MATCH_1}, not ${PROJECT_VERSION}")
endif()
set(package_version ${PROJECT_VERSION}-${package_release})

set(debian_architecture_arm armhf)
set(debian_architecture_aarch64 arm64)
if(CMAKE_CROSSCOMPILING)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${debian_architecture_${CMAKE_SYSTEM_PROCESSOR}})
endif()

# The bill of materials. libstdc++ and libgcc have the version of the GCC that they come with; another
# compiler takes those of a GCC that is installed, whose headers tell its release and day.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/libraries.h "#include <features.h>\n#include <cstddef>\n\
glibc __GLIBC__.__GLIBC_MINOR__\nlibstdcxx _GLIBCXX_RELEASE __GLIBCXX__\n")
separate_arguments(compiler_flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${compiler_flags} -E -P -x c++
                        ${CMAKE_CURRENT_BINARY_DIR}/libraries.h
                OUTPUT_VARIABLE preprocessed)
if(NOT preprocessed MATCHES "glibc ([0-9]+)[ .]+([0-9]+)")
    message(FATAL_ERROR "The C library is not glibc, which is the one that setupmend.spdx.in names")
endif()
set(glibc_version ${CMAKE_MATCH_1}.${CMAKE_MATCH_2})
if(NOT preprocessed MATCHES "libstdcxx ([0-9]+) ([0-9]+)")
    message(FATAL_ERROR "The C++ library is not libstdc++, which setupmend.spdx.in names")
endif()
set(gcc_version "${CMAKE_MATCH_1} (${CMAKE_MATCH_2})")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set(gcc_version ${CMAKE_CXX_COMPILER_VERSION})
endif()
execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${compiler_flags} -print-libgcc-file-name
                OUTPUT_VARIABLE runtime)
if(NOT runtime MATCHES "/libgcc[.]a")
    message(FATAL_ERROR "The compiler's runtime is ${runtime}, and setupmend.spdx.in names libgcc")
endif()
set(glibc_link DYNAMIC_LINK)
set(if_static "# ")
if(SETUPMEND_STATIC)
    set(glibc_link STATIC_LINK)
    set(if_static "")
endif()
set(libstdcxx_link STATIC_LINK)
set(libgcc_shared "")
if(NOT SETUPMEND_STATIC AND NOT SETUPMEND_STATIC_RUNTIME)
    set(libstdcxx_link DYNAMIC_LINK)
    # Parts of libgcc are in the program in any case.
    set(libgcc_shared "Relationship: SPDXRef-setupmend DYNAMIC_LINK SPDXRef-libgcc\n")
endif()
string(TIMESTAMP spdx_created UTC)  # that of SOURCE_DATE_EPOCH, when it is set
# The same namespace for the same build, another one for any other.
string(UUID spdx_uuid NAMESPACE 6ba7b811-9dad-11d1-80b4-00c04fd430c8 TYPE SHA1
       NAME "setupmend ${package_version} ${CMAKE_SYSTEM_PROCESSOR} ${spdx_created} \
${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION} ${gcc_version} ${glibc_version} ${glibc_link} \
${libstdcxx_link}")
configure_file(setupmend.spdx.in setupmend.spdx @ONLY)
configure_file(lintian-overrides.in lintian-overrides @ONLY)

find_program(GZIP gzip REQUIRED)
function(compress source target)
    add_custom_command(OUTPUT ${target}
                       COMMAND ${GZIP} -n -9 -c ${source} > ${target}
                       DEPENDS ${source} VERBATIM)
endfunction()
set(compressed "")
foreach(source setupmend.8 adopt-label.8 setupmend-rehearse.1)
    compress(${CMAKE_CURRENT_SOURCE_DIR}/${source} ${CMAKE_CURRENT_BINARY_DIR}/${source}.gz)
    list(APPEND compressed ${CMAKE_CURRENT_BINARY_DIR}/${source}.gz)
endforeach()
compress(${CMAKE_CURRENT_SOURCE_DIR}/changelog ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz)
compress(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
set(changelogs ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz
               ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
add_custom_target(package_files ALL DEPENDS ${compressed} ${changelogs})

install(FILES copyright ${changelogs} ${CMAKE_CURRENT_BINARY_DIR}/setupmend.spdx
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/setupmend.8.gz ${CMAKE_CURRENT_BINARY_DIR}/adopt-label.8.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/lintian-overrides DESTINATION share/lintian/overrides
        RENAME setupmend)

if(SETUPMEND_REHEARSE)
    install(FILES copyright ${changelogs} DESTINATION share/doc/setupmend-rehearse
            COMPONENT rehearse)
    install(FILES rehearse-overrides DESTINATION share/lintian/overrides RENAME setupmend-rehearse
            COMPONENT rehearse)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/setupmend-rehearse.1.gz
            DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT rehearse)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME setupmend)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${package_release})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Two packages: what has no component is the appliance's.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Unspecified)
if(SETUPMEND_REHEARSE)
    list(APPEND CPACK_COMPONENTS_ALL rehearse)
endif()
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_NAME setupmend)
set(CPACK_DEBIAN_REHEARSE_PACKAGE_NAME setupmend-rehearse)
set(CPACK_PACKAGE_CONTACT "The setupmend authors <setupmend@example.com>" CACHE STRING
    "Who looks after the package")
# The first line is the summary. CPack would put the project's before both.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_COMPONENT_UNSPECIFIED_DESCRIPTION
"upgrades a telephony appliance's configuration to its firmware
setupmend runs once when an IP PBX or VoIP gateway starts, before the
telephony services read their configuration. It compares the version of the
configuration with the one that the installed firmware expects, restores
missing files from the factory tree, converts old files to their current form,
in place, and writes a report.

The package has it run at the next start, by a systemd unit or an init script.
Installing it upgrades nothing.")
set(CPACK_COMPONENT_REHEARSE_DESCRIPTION
"rehearses the upgrade of a telephony appliance's configuration
setupmend-rehearse upgrades a copy of an appliance's backup in a sandbox, on a
workstation, and tells what the upgrade would mean for the site: a verdict,
the problems with what to do about each, and every change by the step that
made it, as text, JSON or a page for a browser. A fleet of backups is
rehearsed at once.")
set(CPACK_DEBIAN_PACKAGE_SECTION comm)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_SUGGESTS logrotate)
set(CPACK_DEBIAN_REHEARSE_PACKAGE_DEPENDS bubblewrap)
set(CPACK_DEBIAN_REHEARSE_PACKAGE_RECOMMENDS parallel)
set(CPACK_DEBIAN_REHEARSE_PACKAGE_SUGGESTS setupmend)
if(NOT SETUPMEND_STATIC)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/conffiles ${CMAKE_CURRENT_SOURCE_DIR}/postinst
    ${CMAKE_CURRENT_SOURCE_DIR}/prerm ${CMAKE_CURRENT_SOURCE_DIR}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
include(CPack)
