# Install rules: public headers, the libraries, a CMake package
# (find_package(ZorvaneRewardsKit CONFIG)) and pkg-config files.
include(CMakePackageConfigHelpers)

set(ZV_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZorvaneRewardsKit)
set(ZV_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/core/include/ZorvaneCoreKit
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
        FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/rewards/include/ZorvaneRewardsKit
                  ${PROJECT_SOURCE_DIR}/rewards/model/include/ZorvaneRewardsKit
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
        FILES_MATCHING PATTERN "*.h")

set(ZV_INSTALLED_TARGETS ZorvaneCoreKit ZorvaneRewardsKit)
if(TARGET ZorvaneRewardsKitTesting)
  list(APPEND ZV_INSTALLED_TARGETS ZorvaneRewardsKitTesting)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/testing/include/ZorvaneRewardsKit
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
          FILES_MATCHING PATTERN "*.h")
endif()

if(TARGET ZorvaneRewardsKitC)
  list(APPEND ZV_INSTALLED_TARGETS ZorvaneRewardsKitC)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/capi/include/ZorvaneRewardsKitC
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
          FILES_MATCHING PATTERN "*.h")
endif()

# The rewards library finds the core next to itself wherever the prefix lands.
set_target_properties(ZorvaneCoreKit ZorvaneRewardsKit PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS ${ZV_INSTALLED_TARGETS} EXPORT ZorvaneRewardsKitTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT ZorvaneRewardsKitTargets NAMESPACE ZorvaneRewardsKit::
        DESTINATION ${ZV_CMAKE_PACKAGE_DIR} COMPONENT Development)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ZorvaneRewardsKitConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ZorvaneRewardsKitConfig.cmake
  INSTALL_DESTINATION ${ZV_CMAKE_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZorvaneRewardsKitConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZorvaneRewardsKitConfig.cmake
              ${PROJECT_BINARY_DIR}/ZorvaneRewardsKitConfigVersion.cmake
        DESTINATION ${ZV_CMAKE_PACKAGE_DIR} COMPONENT Development)

# pkg-config files locate the prefix from their own directory, so the tree
# can be installed anywhere (cmake --install --prefix) and moved.
file(RELATIVE_PATH ZV_PC_PREFIX_FROM_PCDIR /prefix/${ZV_PKGCONFIG_DIR} /prefix)
# Static libraries name their private dependencies for `pkg-config --static`;
# linked as -l, libcurl comes as the system's shared library with its own deps.
if(BUILD_SHARED_LIBS)
  set(ZV_PC_CORE_LIBS_PRIVATE "")
  set(ZV_PC_REWARDS_LIBS_PRIVATE "")
  set(ZV_PC_CORE_CFLAGS "")
  set(ZV_PC_REWARDS_CFLAGS "")
else()
  set(ZV_PC_CORE_LIBS_PRIVATE "-lcurl -lsimdjson")
  set(ZV_PC_REWARDS_LIBS_PRIVATE "")
  set(ZV_PC_CORE_CFLAGS "-DZV_CORE_STATIC")
  set(ZV_PC_REWARDS_CFLAGS "-DZV_REWARDS_STATIC")
endif()
set(ZV_PC_FILES zorvane-core-kit zorvane-rewards-kit)
if(TARGET ZorvaneRewardsKitTesting)
  list(APPEND ZV_PC_FILES zorvane-rewards-kit-testing)
endif()
if(TARGET ZorvaneRewardsKitC)
  list(APPEND ZV_PC_FILES zorvane-rewards-kit-c)
endif()
foreach(pc IN LISTS ZV_PC_FILES)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${ZV_PKGCONFIG_DIR}
          COMPONENT Development)
endforeach()
