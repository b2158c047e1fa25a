#pragma once

#include "../base/QKGlobal.h"
#include "../data/QKFeedbackDataSource.h"
#include "QKFeedbackSettings.h"

#include <QObject>
#include <QVariantMap>

#include <memory>

class QKFeedbackSendFlowPrivate;

/// The send and the name behind it, as the façade runs them: whether the name screen
/// must come first, the busy state while the source works, which alert follows, and
/// whether the screens close (success) or stay (failure). It also keeps the user's
/// settings, whose one key "Name" is saved in "qkfeedback.settings.plist".
///
/// A front end forwards the user's choices here and shows what the signals ask for.
/// The flow holds the data source strongly and owns its captions. A QObject owned by
/// its parent (the façade holds the one the widget screens use). Lives on one thread,
/// the main one; the source's answers are delivered there, and not at all once the
/// flow is gone.
class MURMORA_DATA_EXPORT QKFeedbackSendFlow : public QObject
{
    Q_OBJECT
    /// True while a send is with the data source.
    Q_PROPERTY(bool busy READ isBusy NOTIFY busyChanged)
    /// Whether the name screen offers Continue and Send Anonymously: only when a send waits for the name.
    Q_PROPERTY(bool showsNameButtons READ showsNameButtons WRITE setShowsNameButtons NOTIFY showsNameButtonsChanged)
    /// The saved name, "" by default; what the name field starts with.
    Q_PROPERTY(QString savedName READ savedName NOTIFY settingsChanged)
public:
    /// What the user chose on the name screen.
    enum NameAction {
        SendWithName,  ///< Continue: save the typed name, then send
        SendAnonymous, ///< Send Anonymously: save the localised "Anonymous", then send
        Back,          ///< Back: save the typed name, send nothing
    };
    Q_ENUM(NameAction)

    /// A flow with no source, no items and the default settings (not read from the
    /// file until loadSettings()); `parent` owns it.
    explicit QKFeedbackSendFlow(QObject *parent = nullptr);
    ~QKFeedbackSendFlow() override;

    /// The action's old string form: "SendWithName", "SendAnonymous", or "" for Back.
    static QString nameActionString(NameAction action);
    /// Reads the old string form: "" (or null) is Back, "SendAnonymous" is itself, any
    /// other text counts as SendWithName, as it always has.
    static NameAction nameAction(const QString &action);
    /// Gives `source` the name the user chose: the localised "Anonymous", or
    /// `typedName` without blanks at its ends. Answers the source's name afterwards;
    /// a null string, and nothing done, without a source.
    static QString applyName(const QKFeedbackDataSourcePtr &source, NameAction action, const QString &typedName);

    /// The captions of the menu and the alert; owned by the flow, never null.
    QKFeedbackSettings *feedbackSettings() const;

    /// Where feedback goes; null until set.
    QKFeedbackDataSourcePtr dataSource() const;
    /// First gives `source` the saved name (possibly empty), then keeps it.
    void setDataSource(const QKFeedbackDataSourcePtr &source);

    /// The items the next send hands to the source.
    QKFeedbackItemList feedbackItems() const;
    /// Sets them; the send screen's items, taken when the user taps Send.
    void setFeedbackItems(const QKFeedbackItemList &items);

    /// The settings dictionary.
    QVariantMap settings() const;
    /// The dictionary itself, for changing in place; no signal is emitted then.
    QVariantMap &settings();
    /// Replaces the dictionary.
    void setSettings(const QVariantMap &settings);
    /// The "Name" setting as text.
    QString savedName() const;
    /// The settings file: QKDocumentsDirectory() + "/qkfeedback.settings.plist".
    static QString settingsPath();
    /// Reads the file; one that is missing or unreadable gives {"Name": ""}.
    void loadSettings();
    /// Writes the file atomically; false when that failed.
    bool saveSettings();
    /// Stores `name` under "Name" unless it is null, then saves in any case.
    void rememberName(const QString &name);

    /// True while a send is with the source.
    bool isBusy() const;
    /// Whether the name screen offers its two send buttons.
    bool showsNameButtons() const;
    /// Set false before the name screen opens from the menu; send() sets it true.
    void setShowsNameButtons(bool shows);
    /// Whether a send must ask for a name first: no source, or a null or empty name.
    bool needsName() const;

    /// Sends feedbackItems(). Without a name it only asks for one (nameNeeded); then
    /// busy until the source answers, followed by alertRequested (when the captions'
    /// switch is on, for a failure too) and sent() or sendFailed().
    Q_INVOKABLE void send();
    /// The name screen's choice: applies it to the source, remembers and saves the
    /// name, then sends again unless the choice was Back. Answers the source's name.
    Q_INVOKABLE QString chooseName(QKFeedbackSendFlow::NameAction action, const QString &typedName);

signals:
    /// busy changed.
    void busyChanged(bool busy);
    /// showsNameButtons changed.
    void showsNameButtonsChanged();
    /// The settings were replaced, read or a name remembered.
    void settingsChanged();
    /// A send needs a name: show the name screen, over the send screen, with its buttons.
    void nameNeeded();
    /// Show an alert with an OK button.
    void alertRequested(const QString &title, const QString &message);
    /// The source took the items: close the feedback screens.
    void sent();
    /// The source refused them: stay on the send screen with its markers, without a
    /// name screen on top.
    void sendFailed();

private:
    std::unique_ptr<QKFeedbackSendFlowPrivate> d;
};
