#pragma once

#include "QKGlobal.h"

#include <QSizeF>
#include <QString>

#include <functional>

/// What the library reports about the device and the host application. Each value
/// comes from a provider that a host may replace (for a model name it knows better,
/// say); the defaults ask Qt and the system. Providers may be called from any thread.
class MURMORA_DATA_EXPORT QKDeviceInfo
{
public:
    struct Providers
    {
        /// The device model; a null string when unknown.
        std::function<QString()> model;
        /// The operating system's version; a null string when unknown.
        std::function<QString()> systemVersion;
        /// The application's identifier, reversed-domain style.
        std::function<QString()> applicationIdentifier;
        /// The application's version; a null string when it has none.
        std::function<QString()> applicationVersion;
        /// The primary screen's size in points; empty without a screen.
        std::function<QSizeF()> screenSize;
    };

    static QString model();
    static QString systemVersion();
    static QString applicationIdentifier();
    static QString applicationVersion();
    static QSizeF screenSize();

    /// Replaces the providers that are set in `providers`; unset ones keep theirs.
    static void setProviders(const Providers &providers);
    /// The built-in providers.
    static Providers defaultProviders();
};
