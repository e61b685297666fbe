# What the package carries beside the two executables, and `cpack -G DEB` in a build folder:
# their man pages (written from their own help at build time, so they never drift from the
# programs), bash completion for zirnimg and the Debian copyright file.  Included after every
# add_subdirectory, so the targets ZirnImgSignEnTool and zirnimg exist wherever they are defined.

set(ZIRN_DOC_NAME zirn-img-tools)
set(ZIRN_PACKAGING_DIR "${CMAKE_SOURCE_DIR}/packaging")

# The man pages run the built programs: a cross build does that through its emulator, or goes
# without the pages when it has none.
if(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
  message(STATUS "Man pages are off: a cross build without an emulator cannot run the programs")
else()
  set(man_dir "${CMAKE_BINARY_DIR}/man")
  set(gen_man "${ZIRN_PACKAGING_DIR}/gen-man.sh")
  set(footer "${ZIRN_DOC_NAME} ${PROJECT_VERSION}")
  add_custom_command(OUTPUT "${man_dir}/ZirnImgSignEnTool.1.gz"
    COMMAND bash "${gen_man}" usage "${man_dir}/ZirnImgSignEnTool.1.gz"
            "protect a zirn image: pad, encrypt and RSA-PSS-sign it" "${footer}" "zirnimg(1)"
            ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:ZirnImgSignEnTool>
    DEPENDS ZirnImgSignEnTool "${gen_man}"
    COMMENT "Writing the man page of ZirnImgSignEnTool"
    VERBATIM)
  add_custom_command(OUTPUT "${man_dir}/zirnimg.1.gz"
    COMMAND bash "${gen_man}" commands "${man_dir}/zirnimg.1.gz"
            "inspect, verify, decrypt and externally sign protected zirn images" "${footer}"
            "ZirnImgSignEnTool(1)" ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:zirnimg>
    DEPENDS zirnimg "${gen_man}"
    COMMENT "Writing the man page of zirnimg"
    VERBATIM)
  add_custom_target(zirn_man_pages ALL
    DEPENDS "${man_dir}/ZirnImgSignEnTool.1.gz" "${man_dir}/zirnimg.1.gz")
  install(FILES "${man_dir}/ZirnImgSignEnTool.1.gz" "${man_dir}/zirnimg.1.gz"
          DESTINATION share/man/man1)
endif()

install(FILES "${ZIRN_PACKAGING_DIR}/zirnimg.bash-completion"
        DESTINATION share/bash-completion/completions RENAME zirnimg)
install(FILES "${ZIRN_PACKAGING_DIR}/copyright" DESTINATION share/doc/${ZIRN_DOC_NAME})

set(CPACK_PACKAGE_NAME ${ZIRN_DOC_NAME})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Protects zirn images (ZirnImgSignEnTool) and inspects, verifies, decrypts and signs them externally (zirnimg)")
set(CPACK_PACKAGE_CONTACT "zirn image tools maintainers <maintainers@users.noreply.c-seed-c28137d1.example>")
set(CPACK_STRIP_FILES ON)
# Dependencies from the libraries the executables actually link (dpkg-shlibdeps).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)
