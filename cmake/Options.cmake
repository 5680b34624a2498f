# Warning and sanitizer flags shared by every target of the project.
add_compile_options(-Wall -Wextra)
# 64-bit file offsets on 32-bit targets too: U-disk files may pass 2 GiB, and a 32-bit
# program under a 64-bit kernel (emulated, or on a 64-bit recorder kernel without 32-bit
# directory cookies) gets EOVERFLOW from readdir without them, and then sees no plug-ins.
add_compile_definitions(_FILE_OFFSET_BITS=64)
if(WERROR)
  add_compile_options(-Werror)
endif()

if(SANITIZE)
  string(REPLACE "," ";" _pm_sanitizers "${SANITIZE}")
  foreach(_s IN LISTS _pm_sanitizers)
    if(NOT _s MATCHES "^(address|undefined|thread|leak)$")
      message(FATAL_ERROR "SANITIZE: unknown sanitizer '${_s}'")
    endif()
  endforeach()
  if("thread" IN_LIST _pm_sanitizers AND "address" IN_LIST _pm_sanitizers)
    message(FATAL_ERROR "SANITIZE: thread cannot be combined with address")
  endif()
  add_compile_options(-fsanitize=${SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${SANITIZE})
endif()

# Coverage for the fuzzers reaches into every library they load, not only into the targets.
if(BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "BUILD_FUZZERS needs clang (CXX=clang++)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# pm_add_plugin(<name> <kind> [NO_INSTALL] [ALLOW_UNDEFINED] <sources...>)
# Plug-ins are built into plugin/<kind>/, link the SDK, export their two entry points only,
# find the libraries two levels up and are installed into the prefix's plugin/<kind>/ (unless
# NO_INSTALL: the tests' own plug-ins). Undefined symbols are link errors unless
# ALLOW_UNDEFINED (a test plug-in that dlopen must refuse).
set(PM_PLUGIN_EXPORTS ${CMAKE_CURRENT_LIST_DIR}/plugin-exports.map)
function(pm_add_plugin name kind)
  cmake_parse_arguments(P "NO_INSTALL;ALLOW_UNDEFINED" "" "" ${ARGN})
  add_library(${name} MODULE ${P_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE BasicService::SDK)
  target_link_options(${name} PRIVATE -Wl,--version-script=${PM_PLUGIN_EXPORTS})
  if(NOT P_ALLOW_UNDEFINED)
    target_link_options(${name} PRIVATE -Wl,--no-undefined)
  endif()
  set_target_properties(${name} PROPERTIES
    PREFIX "lib"
    LIBRARY_OUTPUT_DIRECTORY ${PM_PLUGIN_OUTPUT_DIRECTORY}/${kind}
    INSTALL_RPATH "$ORIGIN/../../lib"
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    LINK_DEPENDS ${PM_PLUGIN_EXPORTS})
  if(NOT P_NO_INSTALL)
    install(TARGETS ${name} LIBRARY DESTINATION ${PM_INSTALL_PLUGINDIR}/${kind})
  endif()
endfunction()
