# What the Debian package installs, and how `cpack -G DEB` builds it from a build folder.
set(TILTHWATCH_PACKAGING_DIR ${PROJECT_SOURCE_DIR}/packaging)
install(FILES ${TILTHWATCH_PACKAGING_DIR}/tilthwatch.service DESTINATION lib/systemd/system)
install(FILES ${TILTHWATCH_PACKAGING_DIR}/tilthwatch.sysusers
        DESTINATION lib/sysusers.d RENAME tilthwatch.conf)
install(FILES ${TILTHWATCH_PACKAGING_DIR}/tilthwatch.tmpfiles
        DESTINATION lib/tmpfiles.d RENAME tilthwatch.conf)
# The fallback logging configuration; its path is compiled into the service.
install(FILES ${TILTHWATCH_PACKAGING_DIR}/log4cplus.default.ini
        DESTINATION /etc/norvane/tilthwatch)

# Packaging takes what is built and builds nothing itself, so that the package check can run
# beside the other tests: build the service first (tools/package.sh does both).
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tilthwatch)
set(CPACK_PACKAGE_VENDOR "Norvane")
set(CPACK_PACKAGE_CONTACT "tilthwatch maintainers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "CAN telematics service for agricultural machines")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The maintainer scripts create the user and folder through systemd's own tools.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "systemd")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${TILTHWATCH_PACKAGING_DIR}/debian/conffiles ${TILTHWATCH_PACKAGING_DIR}/debian/postinst
    ${TILTHWATCH_PACKAGING_DIR}/debian/prerm ${TILTHWATCH_PACKAGING_DIR}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
include(CPack)
