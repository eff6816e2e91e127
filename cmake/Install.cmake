# What `cmake --install` puts under the prefix: the library with its SONAME, the public headers, a CMake
# package (find_package(VelmoraCore CONFIG) -> velmora::core) and a pkg-config file, each in the component
# "core"; the command-line host ("cli") and the local account server ("mock") when they are built.
include(CMakePackageConfigHelpers)

set(VELMORA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VelmoraCore)

install(TARGETS velmora_core EXPORT VelmoraCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT core NAMELINK_COMPONENT core
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT core
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT core)
install(DIRECTORY include/velmora DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT core
  FILES_MATCHING PATTERN "*.h")
install(EXPORT VelmoraCoreTargets NAMESPACE velmora:: DESTINATION ${VELMORA_CMAKE_DIR} COMPONENT core)

foreach(tool IN ITEMS cli mock)
  set(target velmora-${tool})
  if(TARGET ${target})
    # Installed next to the library: found through the prefix, wherever it is.
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${tool} INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    install(TARGETS ${target} EXPORT VelmoraCore-${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
      COMPONENT ${tool})
    install(EXPORT VelmoraCore-${tool} NAMESPACE velmora:: DESTINATION ${VELMORA_CMAKE_DIR}
      COMPONENT ${tool})
  endif()
endforeach()

# A static library brings its private dependencies to the consumer's link.
set(VELMORA_PC_REQUIRES_PRIVATE "libcurl sqlite3 libplist-2.0 libutf8proc")
if(BUILD_SHARED_LIBS)
  set(VELMORA_STATIC_DEPENDENCIES "")
else()
  set(VELMORA_STATIC_DEPENDENCIES [=[
find_dependency(SQLite3)
find_dependency(CURL)
find_dependency(PkgConfig)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
pkg_check_modules(UTF8PROC REQUIRED IMPORTED_TARGET libutf8proc)]=])
endif()

configure_package_config_file(cmake/VelmoraCoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VelmoraCoreConfig.cmake INSTALL_DESTINATION ${VELMORA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VelmoraCoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VelmoraCoreConfig.cmake ${PROJECT_BINARY_DIR}/VelmoraCoreConfigVersion.cmake
  DESTINATION ${VELMORA_CMAKE_DIR} COMPONENT core)

file(RELATIVE_PATH VELMORA_PC_PREFIX_FROM_PCDIR /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/velmora-core.pc.in ${PROJECT_BINARY_DIR}/velmora-core.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velmora-core.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT core)

# The Python package over the C interface (component "python", with a shared library only: ctypes loads it).
# It lands in VELMORA_PYTHON_DIR under the prefix and finds the library from there through _installed.py.
if(BUILD_SHARED_LIBS)
  set(VELMORA_PYTHON_DIR ${CMAKE_INSTALL_LIBDIR}/python3/dist-packages
      CACHE STRING "Where the Python package is installed, relative to the prefix")
  install(DIRECTORY bindings/python/velmora DESTINATION ${VELMORA_PYTHON_DIR} COMPONENT python
    FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
  file(RELATIVE_PATH _velmora_python_to_lib /${VELMORA_PYTHON_DIR}/velmora /${CMAKE_INSTALL_LIBDIR})
  file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/python/_installed.py CONTENT
"# Written by the install: the library relative to this package's directory.
LIBRARY = \"${_velmora_python_to_lib}/$<TARGET_SONAME_FILE_NAME:velmora_core>\"
")
  install(FILES ${PROJECT_BINARY_DIR}/python/_installed.py DESTINATION ${VELMORA_PYTHON_DIR}/velmora
    COMPONENT python)
endif()
