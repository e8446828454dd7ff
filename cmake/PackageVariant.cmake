# Read by cpack: packages only the chosen launcher variant's install component.
if(CPACK_TH_VARIANT STREQUAL "game" AND NOT CPACK_TH_HAS_PUBLIC_KEY)
  message(FATAL_ERROR "the game package needs the update public key: configure with "
                      "-DTH_UPDATE_PUBLIC_KEY=<the .pem file whose SHA-256 the build pins>")
endif()
set(CPACK_INSTALL_CMAKE_PROJECTS "${CPACK_TH_BUILD_DIR};${CPACK_TH_PROJECT};${CPACK_TH_VARIANT};/")
