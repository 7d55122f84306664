# Installs the library with its headers, CMake package and pkg-config file.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/nxbase)
install(TARGETS nxbase EXPORT nxbaseTargets)
# Headers that say "Inside the library only" in their first line are not installed.
file(GLOB_RECURSE headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}
     ${PROJECT_SOURCE_DIR}/nx/*.h)
foreach(header ${headers})
    file(STRINGS ${PROJECT_SOURCE_DIR}/${header} first_line LIMIT_COUNT 1)
    if(NOT first_line MATCHES "^// Inside the library only")
        get_filename_component(folder ${header} DIRECTORY)
        install(FILES ${PROJECT_SOURCE_DIR}/${header}
                DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder})
    endif()
endforeach()
install(EXPORT nxbaseTargets NAMESPACE nxbase:: DESTINATION ${package_dir})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/nxbaseConfig.cmake.in nxbaseConfig.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(nxbaseConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/nxbaseConfig.cmake
              ${PROJECT_BINARY_DIR}/nxbaseConfigVersion.cmake
              ${CMAKE_CURRENT_LIST_DIR}/Findcares.cmake
              ${CMAKE_CURRENT_LIST_DIR}/Findiniparser.cmake DESTINATION ${package_dir})

# Relative, so that the installed tree can be moved.
file(RELATIVE_PATH NXBASE_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" NXBASE_PC_PREFIX ${NXBASE_PC_PREFIX})
if(NXBASE_CHECK_THREADS)
    set(NXBASE_PC_DEFINES -DNXBASE_CHECK_THREADS)
endif()
if(NXBASE_TLS)
    set(NXBASE_PC_TLS_LIBS ",-lssl,-lcrypto")
endif()
if(NOT BUILD_SHARED_LIBS)
    string(CONCAT NXBASE_PC_STATIC_LIBS "-liniparser -Wl,--push-state,--as-needed,-lcares,-lz"
                                        "${NXBASE_PC_TLS_LIBS},--pop-state")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/nxbase.pc.in nxbase.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/nxbase.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
