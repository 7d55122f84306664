# Finds the c-ares library and makes the target cares::cares.
# Needed by the build of nxbase and, for the static library, by programs that link it.
find_path(cares_INCLUDE_DIR NAMES ares.h)
find_library(cares_LIBRARY NAMES cares)
mark_as_advanced(cares_INCLUDE_DIR cares_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(
    cares
    REQUIRED_VARS cares_LIBRARY cares_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "On Debian and Ubuntu: apt-get install libc-ares-dev"
)

# Loaded only by programs that resolve names: the linker drops it where nothing is taken from it.
if(cares_FOUND AND NOT TARGET cares::cares)
    add_library(cares::cares INTERFACE IMPORTED GLOBAL)
    set_target_properties(
        cares::cares
        PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${cares_INCLUDE_DIR}
                   INTERFACE_LINK_LIBRARIES
                   "-Wl,--push-state,--as-needed,${cares_LIBRARY},--pop-state"
    )
endif()
