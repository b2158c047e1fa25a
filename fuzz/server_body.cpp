// Bodies of new items, comments and state changes as the service reads them, through
// its routes and a real SQLite store: every answer is a JSON object, a refusal has a
// code and a message, and what was stored lists back.

#include "FuzzSupport.h"

#include "QKServiceRoutes.h"
#include "QKServiceStore.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

namespace {

struct Service
{
    QTemporaryDir dir;
    std::unique_ptr<QKServiceStore> store = QKServiceStore::open(QString(), dir.path());
    QKServiceApp app = store->addApp(QStringLiteral("fuzz"));
    QKServiceRoutes routes{store.get(), QStringLiteral("https://127.0.0.1:1")};
    QString thread;
};

Service *service;

QKServiceResponse handle(const QByteArray &method, const QString &path, const QByteArray &body,
                         const QByteArray &filter = {})
{
    QKServiceRequest request;
    request.method = method;
    request.target = (QStringLiteral("/feedback/api/v1/") + service->app.key + path).toUtf8();
    if (!filter.isNull())
        request.headers.append({QByteArray("x-filter-meta"), filter});
    request.body = body;
    const QKServiceResponse response = service->routes.handle(request);
    const QJsonDocument answer = QJsonDocument::fromJson(response.body);
    FUZZ_CHECK(answer.isObject() || answer.isArray());
    if (response.status >= 400) {
        FUZZ_CHECK(answer.object().value(QStringLiteral("code")).isDouble());
        FUZZ_CHECK(!answer.object().value(QStringLiteral("message")).toString().isEmpty());
        FUZZ_CHECK(response.status != 500);
    }
    return response;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    FuzzSupport::startQt();
    service = new Service;
    const QKServiceResponse item = handle("POST", QStringLiteral("/threads"), R"({"Text":"t","Uid":"u"})");
    service->thread = QJsonDocument::fromJson(item.body).object().value(QStringLiteral("Id")).toString();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body(reinterpret_cast<const char *>(data), qsizetype(size));
    const QKServiceResponse item = handle("POST", QStringLiteral("/threads"), body);
    if (item.status == 201) {
        // What was stored lists back by its own device and id, and goes.
        const QJsonObject stored = QJsonDocument::fromJson(item.body).object();
        const QString id = stored.value(QStringLiteral("Id")).toString();
        const QByteArray filter =
            QJsonDocument(
                QJsonObject{{QStringLiteral("Uid"), stored.value(QStringLiteral("Uid"))}, {QStringLiteral("Id"), id}})
                .toJson(QJsonDocument::Compact);
        const QKServiceResponse listed = handle("GET", QStringLiteral("/threads"), QByteArray(), filter);
        FUZZ_CHECK(listed.status == 200 && QJsonDocument::fromJson(listed.body).array().size() == 1);
        FUZZ_CHECK(service->store->deleteThread(service->app.id, id));
    }
    handle("POST", QStringLiteral("/threads/") + service->thread, body);
    handle("PUT", QStringLiteral("/threads"), body, R"({"RootId":")" + service->thread.toUtf8() + "\"}");
    return 0;
}
