#include "QKBinaryPropertyList_p.h"

#include "QKArchiveException.h"

#include <QList>

#include <cstring>

namespace {

constexpr quint64 HeaderSize = 8;
constexpr quint64 TrailerSize = 32;
// Keyed archives nest only a few levels (top, objects, object, references).
constexpr int MaxNesting = 32;

[[noreturn]] void malformed(const QString &what)
{
    throw QKArchiveException(QStringLiteral("malformed binary property list: ") + what);
}

quint64 readBigEndian(const uchar *p, int size)
{
    quint64 value = 0;
    for (int i = 0; i < size; ++i)
        value = (value << 8) | p[i];
    return value;
}

} // namespace

QKBinaryPropertyList::QKBinaryPropertyList(QByteArrayView bytes)
    : m_bytes(bytes), m_data(reinterpret_cast<const uchar *>(bytes.data()))
{
    const auto size = quint64(bytes.size());
    if (size < HeaderSize + 1 + TrailerSize)
        malformed(QStringLiteral("%1 bytes are too few").arg(size));
    if (!bytes.startsWith("bplist00"))
        malformed(QStringLiteral("the header is not \"bplist00\""));
    const uchar *trailer = m_data + size - TrailerSize;
    m_offsetSize = trailer[6];
    m_refSize = trailer[7];
    m_objectCount = readBigEndian(trailer + 8, 8);
    m_top = readBigEndian(trailer + 16, 8);
    m_tableAt = readBigEndian(trailer + 24, 8);
    if (m_offsetSize < 1 || m_offsetSize > 8 || m_refSize < 1 || m_refSize > 8)
        malformed(QStringLiteral("bad trailer: offset size %1, reference size %2").arg(m_offsetSize).arg(m_refSize));
    const quint64 tableEnd = size - TrailerSize;
    if (m_tableAt < HeaderSize || m_tableAt > tableEnd)
        malformed(QStringLiteral("bad trailer: offset table at %1").arg(m_tableAt));
    // Every object takes at least one byte before the table.
    if (m_objectCount == 0 || m_objectCount > (tableEnd - m_tableAt) / quint64(m_offsetSize) ||
        m_objectCount > m_tableAt - HeaderSize)
        malformed(QStringLiteral("bad trailer: %1 objects do not fit the offset table").arg(m_objectCount));
    if (m_top >= m_objectCount)
        malformed(QStringLiteral("bad trailer: top object %1 of %2").arg(m_top).arg(m_objectCount));
    m_objectsEnd = m_tableAt;
    check();
}

quint64 QKBinaryPropertyList::offsetOf(quint64 index) const
{
    return readBigEndian(m_data + m_tableAt + index * quint64(m_offsetSize), m_offsetSize);
}

void QKBinaryPropertyList::need(quint64 at, quint64 size, quint64 offset) const
{
    if (at > m_objectsEnd || size > m_objectsEnd - at)
        malformed(QStringLiteral("object at offset %1 runs past the object table").arg(offset));
}

// Reads a count that follows a marker whose low nibble is 0xF.
quint64 QKBinaryPropertyList::count(quint64 &at, int info, quint64 offset) const
{
    if (info != 0xF)
        return quint64(info);
    need(at, 1, offset);
    const uchar marker = m_data[at++];
    const int size = 1 << (marker & 0xF);
    if ((marker >> 4) != 0x1 || size > 8)
        malformed(QStringLiteral("bad length of the object at offset %1").arg(offset));
    need(at, quint64(size), offset);
    const quint64 value = readBigEndian(m_data + at, size);
    at += quint64(size);
    return value;
}

QKBinaryPropertyList::Object QKBinaryPropertyList::object(quint64 index) const
{
    const quint64 offset = offsetOf(index);
    quint64 at = offset;
    need(at, 1, offset);
    const uchar marker = m_data[at++];
    const int type = marker >> 4;
    const int info = marker & 0xF;
    Object object;
    switch (type) {
    case 0x0:
        if (info != 0x0 && info != 0x8 && info != 0x9 && info != 0xF)
            malformed(QStringLiteral("unknown object type 0x%1 at offset %2")
                          .arg(marker, 2, 16, QLatin1Char('0'))
                          .arg(offset));
        object.type = info == 0x8 || info == 0x9 ? Boolean : Null;
        object.truth = info == 0x9;
        break;
    case 0x1:
    case 0x2:
    case 0x3:
        if (type == 0x1 && info > 4)
            malformed(QStringLiteral("integer of %1 bytes at offset %2").arg(1 << info).arg(offset));
        if (type == 0x2 && info != 2 && info != 3)
            malformed(QStringLiteral("real of %1 bytes at offset %2").arg(1 << info).arg(offset));
        if (type == 0x3 && info != 3)
            malformed(QStringLiteral("bad date at offset %1").arg(offset));
        object.type = type == 0x1 ? Integer : type == 0x2 ? Real : Date;
        object.count = quint64(1) << info;
        break;
    case 0x4:
    case 0x5:
    case 0x6: {
        object.type = type == 0x4 ? Data : String;
        object.utf16 = type == 0x6;
        object.count = count(at, info, offset);
        if (object.utf16 && object.count > (m_objectsEnd - at) / 2)
            malformed(QStringLiteral("string at offset %1 runs past the object table").arg(offset));
        need(at, object.utf16 ? object.count * 2 : object.count, offset);
        break;
    }
    case 0x8:
        if (info > 7)
            malformed(QStringLiteral("reference of %1 bytes at offset %2").arg(info + 1).arg(offset));
        object.type = UID;
        object.count = quint64(info) + 1;
        break;
    case 0xA:
    case 0xC: // a set reads as an array
    case 0xD: {
        object.type = type == 0xD ? Dictionary : Array;
        object.count = count(at, info, offset);
        const quint64 refs = type == 0xD ? 2 : 1;
        if (object.count > (m_objectsEnd - at) / quint64(m_refSize) / refs)
            malformed(QStringLiteral("collection at offset %1 claims %2 entries, more than the file holds")
                          .arg(offset)
                          .arg(object.count));
        break;
    }
    default:
        malformed(
            QStringLiteral("unknown object type 0x%1 at offset %2").arg(marker, 2, 16, QLatin1Char('0')).arg(offset));
    }
    if (object.type != Array && object.type != Dictionary && object.type != String && object.type != Data)
        need(at, object.count, offset);
    object.at = at;
    return object;
}

quint64 QKBinaryPropertyList::ref(const Object &collection, quint64 i) const
{
    const quint64 value = readBigEndian(m_data + collection.at + i * quint64(m_refSize), m_refSize);
    if (value >= m_objectCount)
        malformed(QStringLiteral("object reference %1 out of range (%2 objects)").arg(value).arg(m_objectCount));
    return value;
}

// Walks everything reachable from the top once, without recursion, so that readers
// can follow references without meeting a cycle or unbounded nesting.
void QKBinaryPropertyList::check() const
{
    for (quint64 i = 0; i < m_objectCount; ++i) {
        const quint64 offset = offsetOf(i);
        if (offset < HeaderSize || offset >= m_tableAt)
            malformed(QStringLiteral("bad offset table: object %1 at offset %2").arg(i).arg(offset));
    }
    enum : uchar { Unseen, Open, Done };
    QList<uchar> state(qsizetype(m_objectCount), Unseen);
    struct Frame
    {
        quint64 index;
        Object object;
        quint64 refs;
        quint64 next;
    };
    QList<Frame> stack;
    const auto open = [&](quint64 index) {
        if (stack.size() >= MaxNesting)
            malformed(QStringLiteral("nesting deeper than %1 levels").arg(MaxNesting));
        state[qsizetype(index)] = Open;
        const Object object = this->object(index);
        const quint64 refs = object.type == Dictionary ? 2 * object.count : object.type == Array ? object.count : 0;
        stack.append(Frame{index, object, refs, 0});
    };
    open(m_top);
    while (!stack.isEmpty()) {
        Frame &frame = stack.last();
        if (frame.next == frame.refs) {
            state[qsizetype(frame.index)] = Done;
            stack.removeLast();
            continue;
        }
        const quint64 i = frame.next++;
        const quint64 child = ref(frame.object, i);
        if (frame.object.type == Dictionary && i < frame.object.count) {
            const int type = m_data[offsetOf(child)] >> 4;
            if (type != 0x5 && type != 0x6)
                malformed(QStringLiteral("dictionary at offset %1 has a key that is not a string")
                              .arg(offsetOf(frame.index)));
        }
        if (state[qsizetype(child)] == Open)
            malformed(QStringLiteral("reference cycle through object %1").arg(child));
        if (state[qsizetype(child)] == Unseen)
            open(child);
    }
}

std::optional<QKBinaryPropertyList::Object> QKBinaryPropertyList::member(const Object &dictionary,
                                                                         QStringView key) const
{
    for (quint64 i = 0; i < dictionary.count; ++i)
        if (equals(this->key(dictionary, i), key))
            return value(dictionary, i);
    return std::nullopt;
}

quint64 QKBinaryPropertyList::integer(const Object &object) const
{
    // Sixteen-byte integers hold unsigned 64-bit values in their low half.
    if (object.count == 16)
        return readBigEndian(m_data + object.at + 8, 8);
    return readBigEndian(m_data + object.at, int(object.count));
}

double QKBinaryPropertyList::real(const Object &object) const
{
    const quint64 bits = readBigEndian(m_data + object.at, int(object.count));
    if (object.count == 4) {
        const auto narrow = quint32(bits);
        float value;
        std::memcpy(&value, &narrow, sizeof value);
        return value;
    }
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

QString QKBinaryPropertyList::string(const Object &object) const
{
    const char *p = reinterpret_cast<const char *>(m_data + object.at);
    if (!object.utf16)
        return object.count == 0 ? QStringLiteral("") : QString::fromLatin1(p, qsizetype(object.count));
    QString text(qsizetype(object.count), Qt::Uninitialized);
    char16_t *out = reinterpret_cast<char16_t *>(text.data());
    for (quint64 i = 0; i < object.count; ++i)
        out[i] = char16_t((uchar(p[2 * i]) << 8) | uchar(p[2 * i + 1]));
    return object.count == 0 ? QStringLiteral("") : text;
}

bool QKBinaryPropertyList::equals(const Object &string, QStringView text) const
{
    if (string.type != String || string.count != quint64(text.size()))
        return false;
    const uchar *p = m_data + string.at;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = string.utf16 ? char16_t((p[2 * i] << 8) | p[2 * i + 1]) : char16_t(p[i]);
        if (c != text[i].unicode())
            return false;
    }
    return true;
}

QString QKBinaryPropertyList::describe(const Object &object)
{
    switch (object.type) {
    case Boolean:
        return QStringLiteral("a boolean");
    case Integer:
        return QStringLiteral("an integer");
    case Real:
        return QStringLiteral("a real");
    case Date:
        return QStringLiteral("a date");
    case Data:
        return QStringLiteral("data");
    case String:
        return QStringLiteral("a string");
    case UID:
        return QStringLiteral("a reference");
    case Array:
        return QStringLiteral("an array");
    case Dictionary:
        return QStringLiteral("a dictionary");
    case Null:
        break;
    }
    return QStringLiteral("an unknown value");
}
