include("${CMAKE_CURRENT_LIST_DIR}/UsbHalHostTargets.cmake")
