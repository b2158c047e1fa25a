#pragma once

#include <QByteArray>

// Checks the structure of a binary property list before it is parsed: header,
// trailer, offset table, every object's extent, references in range, no cycles,
// bounded nesting and a bounded size once shared objects are expanded. Throws
// QKArchiveException saying what is wrong.
void QKCheckBinaryPropertyList(const QByteArray &data);
