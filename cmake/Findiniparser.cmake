# Finds the iniparser library and makes the target iniparser::iniparser.
# Needed by the build of nxbase and, for the static library, by programs that link it.
find_path(iniparser_INCLUDE_DIR NAMES iniparser/iniparser.h)
find_library(iniparser_LIBRARY NAMES iniparser)
mark_as_advanced(iniparser_INCLUDE_DIR iniparser_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(
    iniparser
    REQUIRED_VARS iniparser_LIBRARY iniparser_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "On Debian and Ubuntu: apt-get install libiniparser-dev"
)

if(iniparser_FOUND AND NOT TARGET iniparser::iniparser)
    add_library(iniparser::iniparser UNKNOWN IMPORTED GLOBAL)
    set_target_properties(
        iniparser::iniparser
        PROPERTIES IMPORTED_LOCATION ${iniparser_LIBRARY}
                   INTERFACE_INCLUDE_DIRECTORIES ${iniparser_INCLUDE_DIR}
    )
endif()
