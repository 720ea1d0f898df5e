set(USBHALHOST_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/UsbHalHost)

install(TARGETS UsbHalHost EXPORT UsbHalHostTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT host)
install(FILES ${USBHALHOST_HEADERS}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/UsbHalHost COMPONENT host)

install(EXPORT UsbHalHostTargets NAMESPACE UsbHal::
    DESTINATION ${USBHALHOST_CMAKE_DIR} COMPONENT host)
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/UsbHalHostConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_SOURCE_DIR}/cmake/UsbHalHostConfig.cmake
    ${PROJECT_BINARY_DIR}/UsbHalHostConfigVersion.cmake
    DESTINATION ${USBHALHOST_CMAKE_DIR} COMPONENT host)

configure_file(
    ${PROJECT_SOURCE_DIR}/cmake/usbhal-host.pc.in ${PROJECT_BINARY_DIR}/usbhal-host.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/usbhal-host.pc
    DESTINATION ${USBHAL_PKGCONFIG_DIR} COMPONENT host)
