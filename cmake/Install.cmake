include(CMakePackageConfigHelpers)

set(USBHAL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/UsbHal)
set(USBHAL_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS UsbHal UsbHalPort EXPORT UsbHalTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT usbhal)
install(FILES
    ${PROJECT_SOURCE_DIR}/Src/UsbHal/UsbHalIntf.h
    ${PROJECT_SOURCE_DIR}/Src/UsbHalPort/UsbHalPort.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/UsbHal COMPONENT usbhal)

install(EXPORT UsbHalTargets NAMESPACE UsbHal::
    DESTINATION ${USBHAL_CMAKE_DIR} COMPONENT usbhal)
configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/UsbHalConfig.cmake.in ${PROJECT_BINARY_DIR}/UsbHalConfig.cmake
    INSTALL_DESTINATION ${USBHAL_CMAKE_DIR}
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/UsbHalConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/UsbHalConfig.cmake
    ${PROJECT_BINARY_DIR}/UsbHalConfigVersion.cmake
    DESTINATION ${USBHAL_CMAKE_DIR} COMPONENT usbhal)

foreach(module IN ITEMS usbhal usbhal-port)
    configure_file(
        ${PROJECT_SOURCE_DIR}/cmake/${module}.pc.in ${PROJECT_BINARY_DIR}/${module}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${module}.pc
        DESTINATION ${USBHAL_PKGCONFIG_DIR} COMPONENT usbhal)
endforeach()
