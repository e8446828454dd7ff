# Read by cpack: packages only the chosen launcher variant's install component.
if(CPACK_TH_VARIANT STREQUAL "devkey")
  # Anyone can sign releases for the development key: its package must never pass for the game's.
  if(NOT CPACK_TH_TEST_BUILD)
    message(FATAL_ERROR "the development-key package is for tests only; it is not made from a "
                        "build without tests (TH_BUILD_TESTS=OFF)")
  endif()
  set(CPACK_PACKAGE_FILE_NAME tarn-hollow-DEVELOPMENT-KEY-linux-x86_64)
elseif(NOT CPACK_TH_VARIANT STREQUAL "game")
  message(FATAL_ERROR "CPACK_TH_VARIANT is game or devkey, not '${CPACK_TH_VARIANT}'")
elseif(NOT CPACK_TH_HAS_PUBLIC_KEY)
  message(FATAL_ERROR "the game package needs the update public key: configure with "
                      "-DTH_UPDATE_PUBLIC_KEY=<the .pem file whose SHA-256 the build pins>")
endif()
set(CPACK_INSTALL_CMAKE_PROJECTS "${CPACK_TH_BUILD_DIR};${CPACK_TH_PROJECT};${CPACK_TH_VARIANT};/")
