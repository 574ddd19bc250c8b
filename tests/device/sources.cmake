# Device-level tests of the library: the real libusb against simulated cameras.
if(COMMAND tarvik_add_device_test)
  tarvik_add_device_test(test_device
    ${CMAKE_CURRENT_LIST_DIR}/test_connection.cpp
    ${CMAKE_CURRENT_LIST_DIR}/test_transfers.cpp
    ${CMAKE_CURRENT_LIST_DIR}/test_transactions.cpp
    ${CMAKE_CURRENT_LIST_DIR}/test_sam.cpp
    ${CMAKE_CURRENT_LIST_DIR}/test_operations.cpp)
  target_link_libraries(test_device PRIVATE tarvik_internal)
  target_include_directories(test_device PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
endif()
