#pragma once

#include <QByteArrayView>
#include <QString>
#include <QStringView>

#include <optional>

// A binary property list ("bplist00") read in place: objects are looked up by index
// over the bytes, and nothing is copied until a value is asked for.
//
// The constructor checks the whole structure first: header, trailer, offset table,
// every reachable object's extent, references in range, no cycles, bounded nesting,
// string keys. Anything wrong throws QKArchiveException saying what. The bytes are
// not owned and must outlive the reader.
class QKBinaryPropertyList
{
public:
    enum Type : quint8 { Null, Boolean, Integer, Real, Date, Data, String, UID, Array, Dictionary };

    // One object: where its payload is and how large it is.
    struct Object
    {
        Type type = Null;
        bool truth = false; // Boolean
        bool utf16 = false; // String: UTF-16 big-endian rather than ASCII
        quint64 at = 0;     // the first byte of the value, characters or references
        quint64 count = 0;  // bytes of a number, date or UID or data; characters; entries
    };

    explicit QKBinaryPropertyList(QByteArrayView bytes);

    Object top() const { return object(m_top); }
    Object object(quint64 index) const;
    // Entry `i` (< count) of an array; key or value `i` of a dictionary.
    Object element(const Object &array, quint64 i) const { return object(ref(array, i)); }
    Object key(const Object &dictionary, quint64 i) const { return object(ref(dictionary, i)); }
    Object value(const Object &dictionary, quint64 i) const { return object(ref(dictionary, dictionary.count + i)); }
    // The value under `key` (the first, should a key repeat); nullopt when there is none.
    std::optional<Object> member(const Object &dictionary, QStringView key) const;

    // An integer's low 64 bits (eight-byte integers are two's complement), or a UID.
    quint64 integer(const Object &object) const;
    // A real, or a date's seconds since 2001-01-01.
    double real(const Object &object) const;
    QString string(const Object &object) const;
    // Whether a string equals `text`, without making a QString of it.
    bool equals(const Object &string, QStringView text) const;
    // The bytes of data or of an ASCII string, in place.
    QByteArrayView bytes(const Object &object) const
    {
        return m_bytes.sliced(qsizetype(object.at), qsizetype(object.count));
    }

    // "a string", "an array"...: for messages.
    static QString describe(const Object &object);

private:
    quint64 offsetOf(quint64 index) const;
    quint64 ref(const Object &collection, quint64 i) const;
    quint64 count(quint64 &at, int info, quint64 offset) const;
    void need(quint64 at, quint64 size, quint64 offset) const;
    void check() const;

    QByteArrayView m_bytes;
    const uchar *m_data = nullptr;
    quint64 m_objectsEnd = 0; // objects lie before the offset table
    quint64 m_objectCount = 0;
    quint64 m_top = 0;
    quint64 m_tableAt = 0;
    int m_offsetSize = 1;
    int m_refSize = 1;
};
