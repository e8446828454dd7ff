# The launcher and the update helper are shipped twice: in the game package and in every
# release. Both must carry the same bytes, or each new player's first start would find the
# launcher outdated and update it. So the build itself makes the shipped file: in optimised
# builds, right after linking, the debug information moves into <folder>/.debug/<name>.debug
# (where gdb looks for it, beside a link in the executable) and the symbol table stays, so that
# a player's backtrace still names functions. Nothing later changes the file: the package
# installs it unstripped (CPACK_STRIP_FILES OFF in Package.cmake), with the RPATH it was built
# with.
#
# Run as a script after the link: cmake -DTH_EXECUTABLE=<file> -DTH_CONFIG=<config>
#   -DTH_OBJCOPY=<objcopy> -P ShippedExecutable.cmake

if(CMAKE_SCRIPT_MODE_FILE)
  if(NOT TH_CONFIG MATCHES "^(Release|RelWithDebInfo)$")
    return()
  endif()
  cmake_path(GET TH_EXECUTABLE PARENT_PATH folder)
  cmake_path(GET TH_EXECUTABLE FILENAME name)
  set(debug_file "${folder}/.debug/${name}.debug")
  file(MAKE_DIRECTORY "${folder}/.debug")
  execute_process(COMMAND "${TH_OBJCOPY}" --only-keep-debug "${TH_EXECUTABLE}" "${debug_file}"
                  COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND "${TH_OBJCOPY}" --strip-debug "--add-gnu-debuglink=${debug_file}"
                          "${TH_EXECUTABLE}"
                  COMMAND_ERROR_IS_FATAL ANY)
  return()
endif()

function(th_shipped_executable target)
  set_target_properties(${target} PROPERTIES BUILD_WITH_INSTALL_RPATH ON)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND "${CMAKE_COMMAND}" "-DTH_EXECUTABLE=$<TARGET_FILE:${target}>" "-DTH_CONFIG=$<CONFIG>"
            "-DTH_OBJCOPY=${CMAKE_OBJCOPY}" -P "${CMAKE_CURRENT_FUNCTION_LIST_FILE}"
    VERBATIM)
endfunction()
