#include "TestService.h"

#include "QKService.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

TestService::TestService(const QString &databaseUrl) : m_databaseUrl(databaseUrl)
{}

TestService::~TestService() = default;

bool TestService::start()
{
    QKServiceOptions options;
    options.dataDirectory = m_dir.path();
    options.databaseUrl = m_databaseUrl;
    options.listen = QStringLiteral("127.0.0.1:0");
    options.certificateFile = FakeService::certsDirectory() + QStringLiteral("/server.pem");
    options.keyFile = FakeService::certsDirectory() + QStringLiteral("/server.key");
    options.logRequests = false;
    options.observer = [this](const QKServiceRequest &request) {
        record({request.method, request.target, request.headers, request.body});
    };
    m_service = std::make_unique<QKService>(options);
    try {
        m_service->start();
        m_apiKey = store()->addApp(QStringLiteral("test")).key;
        m_appId = store()->appByKey(m_apiKey)->id;
    } catch (const std::exception &error) {
        qWarning("TestService: %s", error.what());
        m_service.reset();
        return false;
    }
    return true;
}

QString TestService::baseUrl() const
{
    return m_service->baseUrl();
}

QKServiceStore *TestService::store() const
{
    return m_service->store();
}

namespace {

QKServiceThread newThread(const QString &text, qint64 createdAt)
{
    QKServiceThread t;
    t.id = QKServiceStore::newIdentifier();
    t.text = text;
    t.createdAt = t.modifiedAt = createdAt ? createdAt : QDateTime::currentMSecsSinceEpoch();
    return t;
}

} // namespace

QString TestService::addThread(const QString &uid, const QString &text, const QString &state, qint64 createdAt,
                               const QByteArray &png)
{
    QKServiceThread t = newThread(text, createdAt);
    t.uid = uid;
    t.state = state;
    if (!png.isEmpty())
        t.imageId = QKServiceStore::newIdentifier();
    store()->insertThread(m_appId, t, png, {}, {});
    return t.id;
}

QString TestService::addComment(const QString &rootId, const QString &text, qint64 createdAt)
{
    QKServiceThread t = newThread(text, createdAt);
    t.rootId = rootId;
    t.uid = QStringLiteral("support");
    t.author = QStringLiteral("Support");
    store()->insertComment(m_appId, t, {}, {});
    return t.id;
}

QList<QKServiceThread> TestService::threads(const QByteArray &filter) const
{
    QKThreadPage page;
    page.filter = QKFilterQuery::parse(filter).value();
    page.limit = 1000;
    return store()->threads(m_appId, page);
}

QString TestService::message(QKServiceRefusal refusal)
{
    return QJsonDocument::fromJson(QKServiceRoutes::refusal(refusal).body)[QLatin1String("message")].toString();
}
