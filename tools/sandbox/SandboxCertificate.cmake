# zv_sandbox_certificate: the sandbox's self-signed certificate, with its
# owner-only files, on its own, for the sandbox and for the test suite's
# HTTP/2 server, which is built even when the tools are not. Included by both, whichever comes first.
if(NOT TARGET zv_sandbox_certificate)
  find_package(OpenSSL REQUIRED)
  add_library(zv_sandbox_certificate STATIC ${CMAKE_CURRENT_LIST_DIR}/src/SandboxCertificate.cpp
    ${CMAKE_CURRENT_LIST_DIR}/src/SandboxFiles.cpp)
  target_include_directories(zv_sandbox_certificate PUBLIC ${CMAKE_CURRENT_LIST_DIR}/src)
  target_link_libraries(zv_sandbox_certificate
    PUBLIC OpenSSL::SSL OpenSSL::Crypto
    PRIVATE fmt::fmt zv_warnings)
  set_target_properties(zv_sandbox_certificate PROPERTIES POSITION_INDEPENDENT_CODE ON)
endif()
