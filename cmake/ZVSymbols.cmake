# Our own symbols are hidden unless marked with an export macro. The standard
# library's template instantiations escape that (libstdc++ declares its
# namespace with default visibility), so a version script makes them local:
# each side of the library boundary keeps its own copy.
if(BUILD_SHARED_LIBS)
  set(ZV_HIDE_STD_MAP ${CMAKE_CURRENT_LIST_DIR}/ZVHideStd.map)
  foreach(zv_lib ZorvaneCoreKit ZorvaneRewardsKit)
    target_link_options(${zv_lib} PRIVATE "LINKER:--version-script=${ZV_HIDE_STD_MAP}")
    set_property(TARGET ${zv_lib} APPEND PROPERTY LINK_DEPENDS ${ZV_HIDE_STD_MAP})
  endforeach()
endif()
