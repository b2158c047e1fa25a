#pragma once

// clang 14 with libstdc++ 12 has no std::source_location (it lacks the builtin the
// header needs); the fuzz build force-includes this stand-in. Only this build sees it.
#if defined(__cplusplus) && __cplusplus > 201703L && defined(__clang__) && !__has_builtin(__builtin_source_location)
#include <cstdint>
#include <source_location>

namespace std {
struct source_location
{
    static constexpr source_location current(const char *file = __builtin_FILE(),
                                             const char *function = __builtin_FUNCTION(),
                                             uint_least32_t line = __builtin_LINE(),
                                             uint_least32_t column = __builtin_COLUMN()) noexcept
    {
        source_location where;
        where.m_file = file;
        where.m_function = function;
        where.m_line = line;
        where.m_column = column;
        return where;
    }
    constexpr source_location() noexcept = default;
    constexpr uint_least32_t line() const noexcept { return m_line; }
    constexpr uint_least32_t column() const noexcept { return m_column; }
    constexpr const char *file_name() const noexcept { return m_file; }
    constexpr const char *function_name() const noexcept { return m_function; }

private:
    const char *m_file = "";
    const char *m_function = "";
    uint_least32_t m_line = 0;
    uint_least32_t m_column = 0;
};
} // namespace std
#endif
