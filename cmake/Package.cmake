# The game package for new players, tarn-hollow-linux-x86_64.tar.gz: one folder holding the
# launcher, the update helper, the icon, a desktop entry, the update public key and the update
# server's address. Started once, the launcher downloads the rest of the game.
#
#   cmake --build --preset release --target package
#
# needs TH_UPDATE_PUBLIC_KEY and TH_UPDATE_SERVER_URL. Each launcher variant is an install
# component: "game" (the release pin, also what `cmake --install` lays out) and, in test builds,
# "devkey" (the development key, whose private half is in the repository), packaged with
#
#   cpack --config <build>/CPackConfig.cmake -D CPACK_TH_VARIANT=devkey \
#         -D CPACK_TH_UPDATE_SERVER_URL=<url> -B <output folder>
#
# as tarn-hollow-DEVELOPMENT-KEY-linux-x86_64.tar.gz, and only from a build with tests.

function(th_install_game variant launcher public_key)
  install(TARGETS ${launcher} tarn-hollow-update-helper
          RUNTIME DESTINATION . COMPONENT ${variant} ${ARGN})
  install(FILES "${PROJECT_SOURCE_DIR}/assets/launcher/tarn_hollow_launcher.png"
          DESTINATION assets/launcher COMPONENT ${variant} ${ARGN})
  install(FILES "${PROJECT_SOURCE_DIR}/packaging/tarn-hollow.desktop"
          DESTINATION . COMPONENT ${variant} ${ARGN})
  install(FILES "${PROJECT_SOURCE_DIR}/docs/PLAYERS.md"
          DESTINATION . COMPONENT ${variant} ${ARGN})
  if(public_key)
    install(FILES "${public_key}" DESTINATION data RENAME update_public_key.pem
            COMPONENT ${variant} ${ARGN})
  endif()
endfunction()

th_install_game(game tarn-hollow-launcher "${TH_UPDATE_PUBLIC_KEY}")
if(TH_BUILD_TESTS)
  th_install_game(devkey tarn-hollow-launcher-devkey "${TH_DEV_PUBLIC_KEY}" EXCLUDE_FROM_ALL)
endif()

set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_NAME tarn-hollow)
set(CPACK_PACKAGE_FILE_NAME tarn-hollow-linux-x86_64)
set(CPACK_PACKAGE_CHECKSUM SHA256)
# The build already made the shipped launcher and helper (ShippedExecutable.cmake); stripping
# them here would give new players a launcher other than the one releases publish.
set(CPACK_STRIP_FILES OFF)
set(CPACK_TH_BUILD_DIR "${CMAKE_BINARY_DIR}")
set(CPACK_TH_PROJECT "${PROJECT_NAME}")
set(CPACK_TH_VARIANT game)
set(CPACK_TH_TEST_BUILD "${TH_BUILD_TESTS}")
set(CPACK_TH_HAS_PUBLIC_KEY "${TH_UPDATE_PUBLIC_KEY}")
set(CPACK_TH_UPDATE_SERVER_URL "${TH_UPDATE_SERVER_URL}")
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_SOURCE_DIR}/cmake/PackageVariant.cmake")
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/PackageServerAddress.cmake")
include(CPack)
