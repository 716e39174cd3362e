# Shipping: the korjnidr launcher, Javadoc, a sources jar, the native-carrying korjnidr-all.jar,
# install rules (GNUInstallDirs) and a Debian package (cpack -G DEB).
include(GNUInstallDirs)
set(KORJNIDR_INSTALL_JNIDIR ${CMAKE_INSTALL_LIBDIR}/jni)   # on java.library.path by default under /usr
set(KORJNIDR_INSTALL_JARDIR ${CMAKE_INSTALL_DATADIR}/java)

# The launcher, once for the build tree (build/korjnidr) and once for the installed layout.
function(korjnidr_launcher out jar libdir)
  set(LAUNCHER_JAR ${jar})
  set(LAUNCHER_LIBDIR ${libdir})
  configure_file(${CMAKE_CURRENT_LIST_DIR}/korjnidr-launcher.in ${out} @ONLY
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endfunction()
korjnidr_launcher(${CMAKE_BINARY_DIR}/korjnidr korjnidr.jar .)
file(RELATIVE_PATH jar_from_bin /${CMAKE_INSTALL_BINDIR} /${KORJNIDR_INSTALL_JARDIR}/korjnidr.jar)
file(RELATIVE_PATH lib_from_bin /${CMAKE_INSTALL_BINDIR} /${KORJNIDR_INSTALL_JNIDIR})
korjnidr_launcher(${CMAKE_BINARY_DIR}/install/korjnidr ${jar_from_bin} ${lib_from_bin})

# Javadoc of the public classes; any warning fails the build.
file(GLOB_RECURSE javadoc_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/java/*.java)
find_program(KORJNIDR_JAVADOC javadoc HINTS ${Java_JAVA_EXECUTABLE}/.. REQUIRED)
find_program(KORJNIDR_JAR_TOOL jar HINTS ${Java_JAVA_EXECUTABLE}/.. REQUIRED)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/javadoc/index.html
  COMMAND ${KORJNIDR_JAVADOC} -quiet -Xdoclint:all,-missing -Werror -d ${CMAKE_BINARY_DIR}/javadoc
          -sourcepath ${CMAKE_SOURCE_DIR}/java -subpackages kor.plox.ldm
  DEPENDS ${javadoc_sources} COMMENT "Javadoc" VERBATIM)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/korjnidr-sources.jar
  COMMAND ${KORJNIDR_JAR_TOOL} --create --file ${CMAKE_BINARY_DIR}/korjnidr-sources.jar -C ${CMAKE_SOURCE_DIR}/java .
  DEPENDS ${javadoc_sources} VERBATIM)

# korjnidr-all.jar: the classes of the library, the tool and the demo, and the library itself
# under native/linux-x86_64/, which NativeLDM extracts when java.library.path has none.
set(all_stage ${CMAKE_BINARY_DIR}/all-jar)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/korjnidr-all.jar
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${all_stage}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${all_stage}/native/linux-x86_64
  COMMAND ${CMAKE_COMMAND} -E chdir ${all_stage} ${CMAKE_COMMAND} -E tar xf ${CMAKE_BINARY_DIR}/korjnidr.jar
  COMMAND ${CMAKE_COMMAND} -E chdir ${all_stage} ${CMAKE_COMMAND} -E tar xf ${CMAKE_BINARY_DIR}/demo/korjnidr-demo.jar
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${all_stage}/META-INF
  COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:korjnidr> ${all_stage}/native/linux-x86_64/
  COMMAND ${KORJNIDR_JAR_TOOL} --create --file ${CMAKE_BINARY_DIR}/korjnidr-all.jar
          --main-class kor.plox.ldm.tool.Korjnidr -C ${all_stage} .
  DEPENDS korjnidr korjnidr_jar korjnidr_demo ${CMAKE_BINARY_DIR}/korjnidr.jar VERBATIM)
add_custom_target(korjnidr_shipping ALL DEPENDS ${CMAKE_BINARY_DIR}/javadoc/index.html
                  ${CMAKE_BINARY_DIR}/korjnidr-sources.jar ${CMAKE_BINARY_DIR}/korjnidr-all.jar)

install(TARGETS korjnidr LIBRARY DESTINATION ${KORJNIDR_INSTALL_JNIDIR})
install_jar(korjnidr_jar DESTINATION ${KORJNIDR_INSTALL_JARDIR})
install(PROGRAMS ${CMAKE_BINARY_DIR}/install/korjnidr DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${CMAKE_BINARY_DIR}/javadoc/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/api)
install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_PACKAGE_NAME korjnidr)
set(CPACK_PACKAGE_VENDOR korjnidr)
set(CPACK_PACKAGE_CONTACT "korjnidr maintainers <korjnidr@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "native half of remote-desktop drive, change and smart card redirection")
set(CPACK_PACKAGE_DESCRIPTION "libkorjnidr.so and its Java class kor.plox.ldm.NativeLDM, with the korjnidr tool.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION java)
# libc and libstdc++ come from dpkg-shlibdeps; PC/SC is loaded with dlopen, so it is named here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libpcsclite1, java17-runtime-headless")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "pcscd")
include(CPack)
