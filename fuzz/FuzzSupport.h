#pragma once

// What every fuzz target shares: Qt set up once, and a check that aborts (so
// libFuzzer keeps the input) with the reason when an invariant breaks.
#include <QCoreApplication>
#include <QString>

#include <cstdio>
#include <cstdlib>

namespace FuzzSupport {

inline void startQt()
{
    static int argc = 1;
    static char name[] = "murmora-fuzz";
    static char *argv[] = {name, nullptr};
    // Image plug-ins and translations look for the application; it lives for the process.
    if (!QCoreApplication::instance())
        new QCoreApplication(argc, argv);
}

[[noreturn]] inline void fail(const char *what, const QString &detail = QString())
{
    std::fprintf(stderr, "invariant broken: %s %s\n", what, qPrintable(detail));
    std::abort();
}

inline void check(bool condition, const char *what, const QString &detail = QString())
{
    if (!condition)
        fail(what, detail);
}

} // namespace FuzzSupport

namespace Fuzz {
inline void makeApplication()
{
    FuzzSupport::startQt();
}
} // namespace Fuzz

#define FUZZ_CHECK(condition) FuzzSupport::check(bool(condition), #condition)

#define MURMORA_FUZZ_INITIALIZE                                                                                        \
    extern "C" int LLVMFuzzerInitialize(int *, char ***)                                                               \
    {                                                                                                                  \
        FuzzSupport::startQt();                                                                                        \
        return 0;                                                                                                      \
    }
