# zv_http2_server: the HTTP/2 loopback server on its own, so that the
# benchmarks can use it without GoogleTest. Included by the test support and
# by the benchmarks, whichever comes first.
if(NOT TARGET zv_http2_server)
  include(${PROJECT_SOURCE_DIR}/tools/sandbox/SandboxCertificate.cmake)
  find_package(OpenSSL REQUIRED)
  pkg_check_modules(NGHTTP2 REQUIRED IMPORTED_TARGET libnghttp2)
  add_library(zv_http2_server STATIC ${CMAKE_CURRENT_LIST_DIR}/ZVHTTP2Server.cpp)
  target_include_directories(zv_http2_server PUBLIC ${CMAKE_CURRENT_LIST_DIR})
  target_link_libraries(zv_http2_server
    PUBLIC Threads::Threads
    PRIVATE zv_sandbox_certificate PkgConfig::NGHTTP2 OpenSSL::SSL OpenSSL::Crypto zv_warnings)
endif()
