# Run by cpack on the assembled package folder: writes the update server's address, given when
# the build was configured (TH_UPDATE_SERVER_URL) or when packaging (CPACK_TH_UPDATE_SERVER_URL).
if(NOT CPACK_TH_UPDATE_SERVER_URL)
  message(FATAL_ERROR "the game package needs the update server's address: configure with "
                      "-DTH_UPDATE_SERVER_URL=<https://...> or pass "
                      "-D CPACK_TH_UPDATE_SERVER_URL=<https://...> to cpack")
endif()
file(WRITE "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/data/update_server.txt"
     "${CPACK_TH_UPDATE_SERVER_URL}\n")
