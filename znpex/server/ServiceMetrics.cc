#include "znpex/server/ServiceMetrics.h"

#include "platform/metrics/MetricsText.h"

namespace znpex::server {

using proto::Json;
using zn::metrics::MetricsText;

namespace {

// The unsigned number at `path` in `j`, if there is one.
bool number(const Json& j, std::initializer_list<const char*> path, uint64_t* out) {
    const Json* at = &j;
    for (const char* key : path) {
        if (!at->is_object() || !at->contains(key)) {
            return false;
        }
        at = &(*at)[key];
    }
    if (!at->is_number_unsigned() && !at->is_number_integer()) {
        return false;
    }
    *out = at->is_number_unsigned()
               ? at->get<uint64_t>()
               : static_cast<uint64_t>(std::max<int64_t>(0, at->get<int64_t>()));
    return true;
}

// One family with one unlabelled sample, when the status has it.
void single(MetricsText& t, const Json& status, std::initializer_list<const char*> path,
            const char* name, const char* help, const char* type) {
    uint64_t v = 0;
    if (number(status, path, &v)) {
        t.family(name, help, type);
        t.sample(name, v);
    }
}

}  // namespace

std::string renderServiceMetrics(const Json& status) {
    MetricsText t;
    if (status.contains("requests") && status["requests"].is_object()) {
        t.family("znpex_requests_total", "Client requests by outcome", "counter");
        for (const char* outcome :
             {"forwarded", "denied", "timedOut", "notConnected", "malformed"}) {
            uint64_t v = 0;
            if (number(status, {"requests", outcome}, &v)) {
                t.sample("znpex_requests_total", v, {{"outcome", outcome}});
            }
        }
    }
    single(t, status, {"connections"}, "znpex_connections", "Open connections", "gauge");
    single(t, status, {"notifications"}, "znpex_manager_notifications_total",
           "Notifications of resource managers", "counter");
    single(t, status, {"events", "delivered"}, "znpex_events_delivered_total",
           "Events delivered to watching clients", "counter");
    single(t, status, {"events", "watches"}, "znpex_event_watches", "Event watches", "gauge");
    single(t, status, {"heartbeat", "received"}, "znpex_heartbeats_received_total",
           "Heartbeats received from the domain's hosts", "counter");
    single(t, status, {"heartbeat", "sent"}, "znpex_heartbeats_sent_total",
           "Heartbeats sent to the management server", "counter");
    single(t, status, {"heartbeat", "silentReports"}, "znpex_heartbeat_silent_reports_total",
           "Hosts reported silent", "counter");
    single(t, status, {"heartbeat", "silent"}, "znpex_heartbeat_silent_hosts", "Hosts silent now",
           "gauge");
    single(t, status, {"heartbeat", "watched"}, "znpex_heartbeat_watched_hosts",
           "Hosts whose heartbeats are watched", "gauge");
    if (status.contains("peers") && status["peers"].is_object()) {
        t.family("znpex_peer_messages_total", "Peer messages sent to other hosts by outcome",
                 "counter");
        for (const char* outcome : {"delivered", "unclaimed", "failed"}) {
            uint64_t v = 0;
            if (number(status, {"peers", outcome}, &v)) {
                t.sample("znpex_peer_messages_total", v, {{"outcome", outcome}});
            }
        }
    }
    single(t, status, {"peers", "changesSent"}, "znpex_table_changes_sent_total",
           "Table changes sent to the other hosts", "counter");
    single(t, status, {"peers", "copiesSent"}, "znpex_table_copies_sent_total",
           "Whole table copies sent to hosts behind", "counter");
    single(t, status, {"peers", "bytesReplicated"}, "znpex_table_replicated_bytes_total",
           "Bytes of table replication sent", "counter");
    single(t, status, {"peers", "changesApplied"}, "znpex_table_changes_applied_total",
           "Table changes taken from other hosts", "counter");
    single(t, status, {"peers", "copiesApplied"}, "znpex_table_copies_applied_total",
           "Whole table copies taken from other hosts", "counter");
    single(t, status, {"tables", "nodes"}, "znpex_table_nodes", "Rows of the node table", "gauge");
    single(t, status, {"uptimeSeconds"}, "znpex_uptime_seconds", "Seconds since start", "gauge");
    return t.text();
}

}  // namespace znpex::server
