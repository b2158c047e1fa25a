#include "QKFont.h"

#include <QFontDatabase>
#include <QStringList>

QString QKFont::systemFamily()
{
    static const QString family = [] {
        const QStringList installed = QFontDatabase::families();
        for (const QString &candidate : {QStringLiteral("Liberation Sans"), QStringLiteral("DejaVu Sans")})
            if (installed.contains(candidate))
                return candidate;
        return QFontDatabase::systemFont(QFontDatabase::GeneralFont).family();
    }();
    return family;
}

void QKFont::setSize(QFont &font, qreal size)
{
    font.setPixelSize(qMax(1, qRound(size > 0 ? size : 17)));
}

QFont QKFont::system(qreal size)
{
    QFont font(systemFamily());
    font.setStyleHint(QFont::SansSerif);
    // Subpixel positions keep measured and drawn widths the same at any pixel ratio.
    font.setHintingPreference(QFont::PreferNoHinting);
    setSize(font, size);
    return font;
}

QFont QKFont::boldSystem(qreal size)
{
    QFont font = system(size);
    font.setBold(true);
    return font;
}

QFont QKFont::named(const QString &name, qreal size)
{
    static const struct
    {
        const char *suffix;
        QFont::Weight weight;
        bool italic;
    } styles[] = {
        {"-BoldItalic", QFont::Bold, true},     {"-Bold", QFont::Bold, false},
        {"-MediumItalic", QFont::Medium, true}, {"-Medium", QFont::Medium, false},
        {"-LightItalic", QFont::Light, true},   {"-Light", QFont::Light, false},
        {"-Italic", QFont::Normal, true},       {"-Regular", QFont::Normal, false},
    };
    QString family = name;
    QFont::Weight weight = QFont::Normal;
    bool italic = false;
    for (const auto &style : styles) {
        if (family.endsWith(QLatin1String(style.suffix))) {
            family.chop(int(qstrlen(style.suffix)));
            weight = style.weight;
            italic = style.italic;
            break;
        }
    }
    QFont font = system(size);
    if (!family.isEmpty()) {
        // "HelveticaNeue" is "Helvetica Neue" to fontconfig; the system family catches the rest.
        QString spaced = family;
        for (int i = spaced.size() - 1; i > 0; --i)
            if (spaced[i].isUpper() && spaced[i - 1].isLower())
                spaced.insert(i, QLatin1Char(' '));
        QStringList families{family};
        if (spaced != family)
            families.append(spaced);
        families.append(systemFamily());
        font.setFamilies(families);
    }
    font.setWeight(weight);
    font.setItalic(italic);
    return font;
}
