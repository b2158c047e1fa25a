#pragma once

// The team's dashboard, served beside the protocol: its pages and scripts from the binary's
// resources at "/" and "/assets/", and its own JSON routes under "/dashboard/api/", which
// take a member's session and never the application key. Thread-safe, like the routes.

#include "QKAccounts.h"
#include "QKServiceRoutes.h"
#include "QKServiceEvents.h"

#include <memory>

class QKServiceStore;
class QKWebhooks;

class QKDashboard
{
public:
    static constexpr int PageSize = 25;
    static constexpr int MaxEventStreams = 256;

    // Store, events and webhooks outlive the dashboard.
    QKDashboard(QKServiceStore *store, QKServiceEvents *events, QKWebhooks *webhooks);
    ~QKDashboard();

    // Whether a request's path is the dashboard's rather than the protocol's.
    static bool serves(const QByteArray &target);
    QKServiceResponse handle(const QKServiceRequest &request);
    // Ends the open event streams and their heartbeat; call before the HTTP server stops.
    void stop();

    QKAccounts &accounts();

    struct Private;

private:
    std::unique_ptr<Private> d;
};
