# Version, install rules and the Debian packages.
#
# Two components, each one .deb (bash scripts/package.sh builds both):
#   hoplift        the desktop program: binary, desktop entry, icons, AppStream
#                  metainfo, man page
#   kelvara-local  the local kelvara service: binary (installed by server/), man
#                  page and a systemd user unit
#
# `cmake --install` without a component installs both, minus the files that only make
# sense in a Debian package (changelog.Debian.gz, lintian overrides).

include(GNUInstallDirs)

# The one place the version lives: project(... VERSION ...). The program prints it.
target_compile_definitions(hoplift PRIVATE HOPLIFT_VERSION="${PROJECT_VERSION}")

# Optimised builds, the ones packaged, get the hardening Debian builds its packages
# with: checked string and memory functions, stack protection, read-only relocations
# bound at start.
set(hoplift_optimised "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
target_compile_options(hoplift_common_cfg INTERFACE
    "$<${hoplift_optimised}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2;-fstack-protector-strong>")
target_link_options(hoplift_common_cfg INTERFACE "$<${hoplift_optimised}:LINKER:-z,relro,-z,now>")

set(HOPLIFT_DEBIAN_REVISION 1)
set(HOPLIFT_DEBIAN_VERSION "${PROJECT_VERSION}-${HOPLIFT_DEBIAN_REVISION}")
set(HOPLIFT_PACKAGING_DIR "${CMAKE_CURRENT_SOURCE_DIR}/packaging")
set(HOPLIFT_PACKAGING_OUT "${CMAKE_CURRENT_BINARY_DIR}/packaging")

# The release notes name the version they describe: the newest entries of the Debian
# changelog and of the AppStream releases must be this version, or a version change
# has not been written up yet.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
    ${HOPLIFT_PACKAGING_DIR}/changelog.Debian
    ${HOPLIFT_PACKAGING_DIR}/com.kelvara.Hoplift.metainfo.xml)
file(STRINGS ${HOPLIFT_PACKAGING_DIR}/changelog.Debian hoplift_changelog_top LIMIT_COUNT 1)
if(NOT hoplift_changelog_top MATCHES "^hoplift \\(${HOPLIFT_DEBIAN_VERSION}\\) ")
    message(FATAL_ERROR "packaging/changelog.Debian begins with '${hoplift_changelog_top}'; "
        "its first entry must be for version ${HOPLIFT_DEBIAN_VERSION}")
endif()
file(STRINGS ${HOPLIFT_PACKAGING_DIR}/com.kelvara.Hoplift.metainfo.xml hoplift_newest_release
    REGEX "<release " LIMIT_COUNT 1)
if(NOT hoplift_newest_release MATCHES "version=\"${PROJECT_VERSION}\"")
    message(FATAL_ERROR "the newest release in packaging/com.kelvara.Hoplift.metainfo.xml "
        "must be version ${PROJECT_VERSION}, not '${hoplift_newest_release}'")
endif()

# Files Debian wants compressed, compressed the way it wants them: gzip -9, with no
# name or time stamp inside, so that the same input gives the same bytes.
set(hoplift_gzipped)
foreach(source IN ITEMS
        ${HOPLIFT_PACKAGING_DIR}/hoplift.1
        ${HOPLIFT_PACKAGING_DIR}/kelvara-local.1
        ${HOPLIFT_PACKAGING_DIR}/changelog.Debian)
    get_filename_component(name "${source}" NAME)
    add_custom_command(OUTPUT ${HOPLIFT_PACKAGING_OUT}/${name}.gz
        COMMAND gzip -9nc ${source} > ${HOPLIFT_PACKAGING_OUT}/${name}.gz
        DEPENDS ${source}
        COMMENT "Compressing ${name}"
        VERBATIM)
    list(APPEND hoplift_gzipped ${HOPLIFT_PACKAGING_OUT}/${name}.gz)
endforeach()
add_custom_target(hoplift_packaging_files ALL DEPENDS ${hoplift_gzipped})

set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# --- hoplift ---------------------------------------------------------------------
install(TARGETS hoplift RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT hoplift)
install(FILES resources/hoplift.desktop
    DESTINATION ${CMAKE_INSTALL_DATADIR}/applications COMPONENT hoplift)
install(DIRECTORY resources/icons/hicolor
    DESTINATION ${CMAKE_INSTALL_DATADIR}/icons COMPONENT hoplift)
install(FILES packaging/com.kelvara.Hoplift.metainfo.xml
    DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo COMPONENT hoplift)
install(FILES ${HOPLIFT_PACKAGING_OUT}/hoplift.1.gz
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT hoplift)

# --- kelvara-local (its binary is installed by server/CMakeLists.txt) -------------
install(FILES ${HOPLIFT_PACKAGING_OUT}/kelvara-local.1.gz
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT kelvara-local)
# Where systemd looks for user units of packages: systemctl --user enable kelvara-local
install(FILES packaging/kelvara-local.service
    DESTINATION lib/systemd/user COMPONENT kelvara-local)

# --- Debian documentation and lintian overrides of both packages ------------------
foreach(component IN ITEMS hoplift kelvara-local)
    install(FILES packaging/copyright
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${component} COMPONENT ${component})
    install(FILES ${HOPLIFT_PACKAGING_OUT}/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${component} COMPONENT ${component}
        EXCLUDE_FROM_ALL)
    install(FILES packaging/lintian-overrides RENAME ${component}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component}
        EXCLUDE_FROM_ALL)
endforeach()

# --- CPack ------------------------------------------------------------------------
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME hoplift)
set(CPACK_PACKAGE_VENDOR "Hoplift developers")
set(CPACK_PACKAGE_CONTACT "Hoplift developers <support@kelvara.com>")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_HOMEPAGE_URL "https://www.kelvara.com/hoplift/")
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL hoplift kelvara-local)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_SOURCE hoplift)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${HOPLIFT_DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "${CPACK_PACKAGE_HOMEPAGE_URL}")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

set(CPACK_DEBIAN_HOPLIFT_PACKAGE_NAME hoplift)
set(CPACK_DEBIAN_HOPLIFT_PACKAGE_SECTION net)
set(CPACK_DEBIAN_HOPLIFT_DESCRIPTION "desktop uploader for the kelvara asset-storage service
Hoplift uploads files and folders to a kelvara account: drop them on its
window, pick them in its file dialog or open them with Hoplift from the file
manager. Every file gets a row with its progress and the time left; uploads
run one at a time and can be stopped, restarted and removed. The queue
survives restarts and sleep.")
set(CPACK_DEBIAN_HOPLIFT_PACKAGE_SUGGESTS kelvara-local)

set(CPACK_DEBIAN_KELVARA-LOCAL_PACKAGE_NAME kelvara-local)
set(CPACK_DEBIAN_KELVARA-LOCAL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_KELVARA-LOCAL_DESCRIPTION "local server speaking the kelvara asset-storage API
kelvara-local is a small HTTP and HTTPS server that answers the requests of
the kelvara asset-storage service and stores uploaded files in a local
folder, one sub-folder per account. It is meant for trying and testing
Hoplift without the real service. A systemd user unit starts it for the
logged-in user on port 8642 with the demo account.")

include(CPack)
