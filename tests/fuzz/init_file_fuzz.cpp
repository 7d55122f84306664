// The profile reader: no file content makes a look-up read or write outside its buffers.
#include <nx/config/CNxConfigInitFile.h>
#include <nx/config/init_file.h>
#include <nx/process/trace_setting.h>

#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "Fuzz.h"

void Fuzz(std::string_view input) {
    const CFuzzFile file(input);
    std::snprintf(g_strConfigfile1, sizeof(g_strConfigfile1), "%s", file.Path().c_str());
    CNxConfigInitFile config;
    const char* const path = file.Path().c_str();
    for (const auto& [section, key] :
         {std::pair("Trace", "Enable"), {"Trace", ""}, {"", "Enable"}}) {
        for (const size_t size : {0UL, 1UL, 2UL, 7UL, 256UL, 4096UL}) {
            // A vector of its own for each size, so that the sanitizer guards its end.
            std::vector<char> out(size);
            const size_t length =
                get_string_from_profile(section, key, "default", out.data(), size, path);
            Require(size == 0 ? length == 0 : length == std::strlen(out.data()));
            Require(!get_string_param(section, key, out.data(), size) || size != 0);
            FILE* const opened = std::fopen(path, "rte");
            static_cast<void>(read_init_file(opened, section, key, out.data(), size));
            std::fclose(opened);
        }
        static_cast<void>(get_int_from_profile(section, key, 7, path));
        static_cast<void>(get_int_param(section, key));
        Require(get_bool_param(section, key, 1) <= 1);
        static_cast<void>(config.GetIntParam(section, key, 1));
        static_cast<void>(config.GetStringParam(section, key, "${HOME}"));
    }
}
