#pragma once

// Builds property lists by hand for tests: keyed archives laid out object by
// object, and raw binary property lists with any structure, valid or not.

#include <QByteArray>
#include <QList>
#include <QString>

#include <initializer_list>
#include <plist/plist.h>
#include <utility>

namespace PlistBuilder {

inline plist_t str(const char *text)
{
    return plist_new_string(text);
}

inline plist_t uid(quint64 value)
{
    return plist_new_uid(value);
}

inline plist_t dict(std::initializer_list<std::pair<const char *, plist_t>> entries)
{
    plist_t d = plist_new_dict();
    for (const auto &[key, value] : entries)
        plist_dict_set_item(d, key, value);
    return d;
}

inline plist_t array(std::initializer_list<plist_t> items)
{
    plist_t a = plist_new_array();
    for (plist_t item : items)
        plist_array_append_item(a, item);
    return a;
}

inline plist_t uids(std::initializer_list<quint64> values)
{
    plist_t a = plist_new_array();
    for (quint64 value : values)
        plist_array_append_item(a, uid(value));
    return a;
}

inline plist_t classRecord(std::initializer_list<const char *> chain)
{
    plist_t names = plist_new_array();
    for (const char *name : chain)
        plist_array_append_item(names, str(name));
    return dict({{"$classes", names}, {"$classname", str(*chain.begin())}});
}

// The top of a keyed archive around `objects` (taken over), root at UID 1.
inline plist_t keyedArchive(plist_t objects, quint64 root = 1)
{
    return dict({{"$version", plist_new_uint(100000)},
                 {"$archiver", str("NSKeyedArchiver")},
                 {"$top", dict({{"root", uid(root)}})},
                 {"$objects", objects}});
}

// Binary form of `node`; frees it.
inline QByteArray toBinary(plist_t node)
{
    char *bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(node, &bytes, &length);
    plist_free(node);
    QByteArray data(bytes, qsizetype(length));
    plist_to_bin_free(bytes);
    return data;
}

// XML form of `node`; frees it.
inline QString toXml(plist_t node)
{
    char *xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(node, &xml, &length);
    QString text = QString::fromUtf8(xml, qsizetype(length));
    plist_to_xml_free(xml);
    plist_free(node);
    return text;
}

// Raw binary property list objects, and a "bplist00" file of them with one-byte
// references and offsets (two-byte offsets past 255 bytes), top object `top`.
inline QByteArray ascii(const QByteArray &text)
{
    return char(0x50 | text.size()) + text;
}

inline QByteArray arrayOf(const QList<int> &refs)
{
    QByteArray encoded(1, char(0xA0 | refs.size()));
    for (int ref : refs)
        encoded.append(char(ref));
    return encoded;
}

inline QByteArray rawBinary(const QList<QByteArray> &objects, int top = 0)
{
    QByteArray out("bplist00");
    QList<qsizetype> offsets;
    for (const QByteArray &object : objects) {
        offsets.append(out.size());
        out.append(object);
    }
    const qsizetype tableAt = out.size();
    const int offsetSize = tableAt > 255 ? 2 : 1;
    for (qsizetype offset : offsets) {
        if (offsetSize == 2)
            out.append(char(offset >> 8));
        out.append(char(offset & 0xFF));
    }
    QByteArray trailer(32, '\0');
    trailer[6] = char(offsetSize);
    trailer[7] = 1;
    trailer[15] = char(objects.size());
    trailer[23] = char(top);
    trailer[30] = char(tableAt >> 8);
    trailer[31] = char(tableAt & 0xFF);
    return out + trailer;
}

} // namespace PlistBuilder
