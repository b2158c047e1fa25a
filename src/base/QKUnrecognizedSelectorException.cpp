#include "QKUnrecognizedSelectorException.h"

QKUnrecognizedSelectorException::QKUnrecognizedSelectorException(const QString &className, const QString &selector,
                                                                 const void *instance)
    : QKException(QStringLiteral("NSInvalidArgumentException"),
                  QStringLiteral("-[%1 %2]: unrecognized selector sent to instance 0x%3")
                      .arg(className, selector, QString::number(reinterpret_cast<quintptr>(instance), 16))),
      d(std::make_shared<const QString>(selector))
{}

QString QKUnrecognizedSelectorException::selector() const
{
    return *d;
}
