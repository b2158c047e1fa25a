#include "QKFeedbackSendFlow.h"

#include "../base/QKArchiveException.h"
#include "../base/QKDocumentsDirectory.h"
#include "../base/QKKeyedArchiver.h"
#include "../base/QKKeyedUnarchiver.h"
#include "../base/QKLocalizedString.h"
#include "../base/QKWhitespace.h"

namespace {

const QString NameKey = QStringLiteral("Name");

} // namespace

class QKFeedbackSendFlowPrivate
{
public:
    QKFeedbackSettings captions;
    QKFeedbackDataSourcePtr source;
    QKFeedbackItemList items;
    QVariantMap settings{{NameKey, QStringLiteral("")}};
    int sending = 0;
    bool showsNameButtons = false;
};

QKFeedbackSendFlow::QKFeedbackSendFlow(QObject *parent)
    : QObject(parent), d(std::make_unique<QKFeedbackSendFlowPrivate>())
{}

QKFeedbackSendFlow::~QKFeedbackSendFlow() = default;

QString QKFeedbackSendFlow::nameActionString(NameAction action)
{
    switch (action) {
    case SendWithName:
        return QStringLiteral("SendWithName");
    case SendAnonymous:
        return QStringLiteral("SendAnonymous");
    case Back:
        break;
    }
    return QStringLiteral("");
}

QKFeedbackSendFlow::NameAction QKFeedbackSendFlow::nameAction(const QString &action)
{
    if (action.isEmpty())
        return Back;
    return action == QLatin1String("SendAnonymous") ? SendAnonymous : SendWithName;
}

QString QKFeedbackSendFlow::applyName(const QKFeedbackDataSourcePtr &source, NameAction action,
                                      const QString &typedName)
{
    if (!source)
        return QString();
    // The same blanks the name screen ignores: a name of blanks is saved as "".
    source->setUserName(action == SendAnonymous ? QKLocalizedString("Anonymous") : QKTrimmedWhitespace(typedName));
    return source->userName();
}

QKFeedbackSettings *QKFeedbackSendFlow::feedbackSettings() const
{
    return &d->captions;
}
QKFeedbackDataSourcePtr QKFeedbackSendFlow::dataSource() const
{
    return d->source;
}

void QKFeedbackSendFlow::setDataSource(const QKFeedbackDataSourcePtr &source)
{
    if (source)
        source->setUserName(savedName());
    d->source = source;
}

QKFeedbackItemList QKFeedbackSendFlow::feedbackItems() const
{
    return d->items;
}
void QKFeedbackSendFlow::setFeedbackItems(const QKFeedbackItemList &items)
{
    d->items = items;
}
QVariantMap QKFeedbackSendFlow::settings() const
{
    return d->settings;
}
QVariantMap &QKFeedbackSendFlow::settings()
{
    return d->settings;
}

void QKFeedbackSendFlow::setSettings(const QVariantMap &settings)
{
    d->settings = settings;
    emit settingsChanged();
}

QString QKFeedbackSendFlow::savedName() const
{
    return d->settings.value(NameKey).toString();
}

QString QKFeedbackSendFlow::settingsPath()
{
    return QKDocumentsDirectory() + QStringLiteral("/qkfeedback.settings.plist");
}

void QKFeedbackSendFlow::loadSettings()
{
    QVariant loaded;
    try {
        loaded = QKKeyedUnarchiver::unarchiveObjectWithFile(settingsPath());
    } catch (const QKArchiveException &) {
        // An unreadable file counts as none: the defaults apply.
    }
    setSettings(loaded.metaType().id() == QMetaType::QVariantMap ? loaded.toMap()
                                                                 : QVariantMap{{NameKey, QStringLiteral("")}});
}

bool QKFeedbackSendFlow::saveSettings()
{
    return QKKeyedArchiver::archiveRootObject(d->settings, settingsPath());
}

void QKFeedbackSendFlow::rememberName(const QString &name)
{
    if (!name.isNull()) {
        d->settings.insert(NameKey, name);
        emit settingsChanged();
    }
    saveSettings();
}

bool QKFeedbackSendFlow::isBusy() const
{
    return d->sending > 0;
}
bool QKFeedbackSendFlow::showsNameButtons() const
{
    return d->showsNameButtons;
}

void QKFeedbackSendFlow::setShowsNameButtons(bool shows)
{
    if (d->showsNameButtons == shows)
        return;
    d->showsNameButtons = shows;
    emit showsNameButtonsChanged();
}

bool QKFeedbackSendFlow::needsName() const
{
    return !d->source || d->source->userName().isEmpty();
}

void QKFeedbackSendFlow::send()
{
    if (needsName()) {
        setShowsNameButtons(true);
        emit nameNeeded();
        return;
    }
    if (d->sending++ == 0)
        emit busyChanged(true);
    d->source->addFeedbackItems(d->items, this, [this](std::optional<QKError> error) {
        if (--d->sending == 0)
            emit busyChanged(false);
        const QKFeedbackSettings &captions = d->captions;
        // The switch silences failures as well as successes.
        if (captions.showFeedbackSentAlert())
            emit alertRequested(captions.feedbackSentAlertTitle(),
                                error ? error->message() : captions.feedbackSentAlertText());
        if (error)
            emit sendFailed();
        else
            emit sent();
    });
}

QString QKFeedbackSendFlow::chooseName(NameAction action, const QString &typedName)
{
    const QString name = applyName(d->source, action, typedName);
    rememberName(name);
    if (action != Back)
        send();
    return name;
}
