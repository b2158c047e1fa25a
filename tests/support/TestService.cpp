#include "TestService.h"

#include "QKService.h"

#include <QDateTime>
#include <QMutexLocker>

TestService::TestService(const QString &databaseUrl) : m_databaseUrl(databaseUrl)
{}

TestService::~TestService()
{
    stop();
}

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
        RecordedRequest r;
        r.method = request.method;
        r.target = request.target;
        r.headers = request.headers;
        r.body = request.body;
        QMutexLocker lock(&m_mutex);
        m_requests.append(r);
    };
    m_service = std::make_unique<QKService>(options);
    try {
        m_service->start();
        m_apiKey = addApplication(QStringLiteral("test"));
        m_appId = store()->appByKey(m_apiKey)->id;
    } catch (const std::exception &error) {
        qWarning("TestService: %s", error.what());
        m_service.reset();
        return false;
    }
    return true;
}

void TestService::stop()
{
    m_service.reset();
}

QString TestService::addApplication(const QString &name)
{
    return m_service->store()->addApp(name).key;
}

QString TestService::baseUrl() const
{
    return m_service->baseUrl();
}

QString TestService::origin() const
{
    return QStringLiteral("https://127.0.0.1:%1").arg(m_service->port());
}

QKServiceStore *TestService::store() const
{
    return m_service->store();
}

QString TestService::addThread(QKServiceThread thread, const QByteArray &png)
{
    if (thread.id.isNull())
        thread.id = QKServiceStore::newIdentifier();
    if (thread.createdAt == 0)
        thread.createdAt = QDateTime::currentMSecsSinceEpoch();
    if (thread.modifiedAt == 0)
        thread.modifiedAt = thread.createdAt;
    if (!png.isEmpty())
        thread.imageId = QKServiceStore::newIdentifier();
    if (thread.rootId.isNull())
        store()->insertThread(m_appId, thread, png, {}, {});
    else
        store()->insertComment(m_appId, thread, {}, {});
    return thread.id;
}

QList<QKServiceThread> TestService::threads(const QByteArray &filter) const
{
    QKThreadPage page;
    page.filter = *QKFilterQuery::parse(filter);
    page.limit = 1000;
    return store()->threads(m_appId, page);
}

QList<RecordedRequest> TestService::requests() const
{
    QMutexLocker lock(&m_mutex);
    return m_requests;
}

void TestService::clearRequests()
{
    QMutexLocker lock(&m_mutex);
    m_requests.clear();
}
