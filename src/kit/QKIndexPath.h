#pragma once

#include <QDebug>
#include <QHashFunctions>

#include <compare>

/// A row in a section of a table view. The default one is invalid (-1, -1) and
/// stands for "no row".
class QKIndexPath
{
public:
    constexpr QKIndexPath() = default;
    constexpr QKIndexPath(int section, int row) : m_section(section), m_row(row) {}
    /// The platform's argument order, for code written against it.
    static constexpr QKIndexPath forRow(int row, int section) { return QKIndexPath(section, row); }

    constexpr int section() const { return m_section; }
    constexpr int row() const { return m_row; }
    constexpr bool isValid() const { return m_section >= 0 && m_row >= 0; }

    friend constexpr bool operator==(const QKIndexPath &, const QKIndexPath &) = default;
    friend constexpr std::strong_ordering operator<=>(const QKIndexPath &, const QKIndexPath &) = default;

private:
    int m_section = -1;
    int m_row = -1;
};
Q_DECLARE_TYPEINFO(QKIndexPath, Q_PRIMITIVE_TYPE);

inline size_t qHash(const QKIndexPath &path, size_t seed = 0) noexcept
{
    return qHashMulti(seed, path.section(), path.row());
}

inline QDebug operator<<(QDebug debug, const QKIndexPath &path)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "QKIndexPath(" << path.section() << ", " << path.row() << ')';
    return debug;
}
