// A program that traces the numbers from 0 on, at four levels by turns; the test reads them back.
#include <nx/trace/CNxT120Trace.h>

#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    constexpr unsigned long LEVELS[] = {21, 11, 1, 0};
    const int count = argc > 1 ? std::atoi(argv[1]) : 0;
    for (int i = 0; i < count; ++i) {
        std::string text = std::to_string(i);
        CNxT120Trace::instance()->trace_string(LEVELS[i % 4], text.data(), false);
    }
}
