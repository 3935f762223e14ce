// DNS-SD through Avahi: publish this device, browse and resolve the others.
#include "dns_sd_discovery.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/thread-watch.h>

#include <cstdlib>
#include <mutex>

#include "net_log.h"

namespace QUEX {
namespace Tandra {
namespace {

constexpr size_t FINGERPRINT_LENGTH = 64;
constexpr size_t MAX_NAME = 256;

bool IsFingerprint(const std::string& text)
{
    if (text.size() != FINGERPRINT_LENGTH) {
        return false;
    }
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) {
            return false;
        }
    }
    return true;
}

bool ParseUint32(const std::string& text, uint32_t* out)
{
    if (text.empty() || text.size() > 10) {
        return false;
    }
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    if (v > UINT32_MAX) {
        return false;
    }
    *out = static_cast<uint32_t>(v);
    return true;
}

}  // namespace

bool ParseDnsSdService(const std::string& serviceName, const std::string& address, uint32_t port,
                       const std::vector<std::string>& txt, DnsSdFound* out, std::string* error)
{
    bool haveId = false;
    bool haveType = false;
    DnsSdFound found;
    for (const std::string& entry : txt) {
        size_t eq = entry.find('=');
        std::string key = entry.substr(0, eq);
        std::string value = eq == std::string::npos ? std::string() : entry.substr(eq + 1);
        if (key == "id") {
            // Two ids would let a record point at whichever device suits the sender.
            if (haveId) {
                *error = "two id entries";
                return false;
            }
            haveId = true;
            found.networkId = value;
        } else if (key == "type") {
            if (haveType || !ParseUint32(value, &found.deviceType)) {
                *error = "bad type '" + value.substr(0, 16) + "'";
                return false;
            }
            haveType = true;
        }
    }
    if (!haveId || !IsFingerprint(found.networkId)) {
        *error = haveId ? "id is not a device fingerprint" : "no id entry";
        return false;
    }
    if (port == 0 || port > 65535) {
        *error = "bad port " + std::to_string(port);
        return false;
    }
    if (address.empty()) {
        *error = "no address";
        return false;
    }
    found.name = serviceName.substr(0, MAX_NAME);
    found.address = address;
    found.port = static_cast<uint16_t>(port);
    *out = std::move(found);
    return true;
}

struct DnsSdDiscovery::Impl {
    // Fixed once Start returns; the Avahi objects below are touched only on Avahi's thread
    // (or before it starts, and after it stopped).
    std::string name;
    std::string networkId;
    uint32_t deviceType = 0;
    uint16_t port = 0;
    FoundHandler found;
    AvahiThreadedPoll* poll = nullptr;
    AvahiClient* client = nullptr;
    AvahiEntryGroup* group = nullptr;
    AvahiServiceBrowser* browser = nullptr;

    mutable std::mutex mu;  // guards what Describe reads
    bool running = false;
    std::string offReason = "not started";
    size_t resolved = 0;

    void SetOff(const std::string& why)
    {
        std::lock_guard<std::mutex> lock(mu);
        running = false;
        offReason = why;
    }

    void Publish(AvahiClient* c)
    {
        if (group == nullptr) {
            group = avahi_entry_group_new(c, &Impl::OnGroup, this);
            if (group == nullptr) {
                Fail("cannot publish this device", avahi_client_errno(c));
                return;
            }
        }
        if (!avahi_entry_group_is_empty(group)) {
            return;
        }
        std::string idText = "id=" + networkId;
        std::string typeText = "type=" + std::to_string(deviceType);
        int err = avahi_entry_group_add_service(group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, static_cast<AvahiPublishFlags>(0),
                                                name.c_str(), DNS_SD_SERVICE_TYPE, nullptr, nullptr, port,
                                                idText.c_str(), typeText.c_str(), static_cast<const char*>(nullptr));
        if (err == AVAHI_ERR_COLLISION) {
            Rename(c);
            return;
        }
        if (err < 0 || (err = avahi_entry_group_commit(group)) < 0) {
            Fail("cannot publish this device", err);
        }
    }

    // Another device uses our name: take the next alternative ("name #2") and publish again.
    void Rename(AvahiClient* c)
    {
        char* next = avahi_alternative_service_name(name.c_str());
        TNDR_LINK_LOGI("DNS-SD: the name '%{public}s' is taken, publishing as '%{public}s'", name.c_str(), next);
        name = next;
        avahi_free(next);
        if (group != nullptr) {
            avahi_entry_group_reset(group);
        }
        Publish(c);
    }

    void Browse(AvahiClient* c)
    {
        if (browser != nullptr) {
            return;
        }
        browser = avahi_service_browser_new(c, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, DNS_SD_SERVICE_TYPE, nullptr,
                                            static_cast<AvahiLookupFlags>(0), &Impl::OnBrowse, this);
        if (browser == nullptr) {
            Fail("cannot browse for devices", avahi_client_errno(c));
        }
    }

    void Fail(const std::string& what, int err)
    {
        std::string why = what + ": " + avahi_strerror(err);
        TNDR_LINK_LOGE("DNS-SD: %{public}s", why.c_str());
        SetOff(why);
    }

    static void OnClient(AvahiClient* c, AvahiClientState state, void* userdata)
    {
        Impl& d = *static_cast<Impl*>(userdata);
        switch (state) {
            case AVAHI_CLIENT_S_RUNNING:
                {
                    std::lock_guard<std::mutex> lock(d.mu);
                    d.running = true;
                    d.offReason.clear();
                }
                d.Publish(c);
                d.Browse(c);
                break;
            case AVAHI_CLIENT_S_COLLISION:
            case AVAHI_CLIENT_S_REGISTERING:
                // The host name changes: publish again once it is settled.
                if (d.group != nullptr) {
                    avahi_entry_group_reset(d.group);
                }
                break;
            case AVAHI_CLIENT_FAILURE:
                d.Fail("the Avahi daemon went away", avahi_client_errno(c));
                break;
            case AVAHI_CLIENT_CONNECTING:
                break;
        }
    }

    static void OnGroup(AvahiEntryGroup* g, AvahiEntryGroupState state, void* userdata)
    {
        Impl& d = *static_cast<Impl*>(userdata);
        if (state == AVAHI_ENTRY_GROUP_COLLISION) {
            d.Rename(avahi_entry_group_get_client(g));
        } else if (state == AVAHI_ENTRY_GROUP_FAILURE) {
            d.Fail("publishing this device failed", avahi_client_errno(avahi_entry_group_get_client(g)));
        }
    }

    static void OnBrowse(AvahiServiceBrowser* b, AvahiIfIndex interface, AvahiProtocol protocol,
                         AvahiBrowserEvent event, const char* serviceName, const char* type, const char* domain,
                         AvahiLookupResultFlags, void* userdata)
    {
        Impl& d = *static_cast<Impl*>(userdata);
        if (event == AVAHI_BROWSER_FAILURE) {
            d.Fail("browsing failed", avahi_client_errno(avahi_service_browser_get_client(b)));
            return;
        }
        if (event != AVAHI_BROWSER_NEW) {
            return;
        }
        // IPv4 addresses only: the link listens on IPv4, and a link-local IPv6 address would
        // need its interface to be dialled. The resolver frees itself in its callback (or with
        // the client at Stop).
        if (avahi_service_resolver_new(avahi_service_browser_get_client(b), interface, protocol, serviceName, type,
                                       domain, AVAHI_PROTO_INET, static_cast<AvahiLookupFlags>(0), &Impl::OnResolve,
                                       userdata) == nullptr) {
            TNDR_LINK_LOGE("DNS-SD: cannot resolve '%{public}s': %{public}s", serviceName,
                           avahi_strerror(avahi_client_errno(avahi_service_browser_get_client(b))));
        }
    }

    static void OnResolve(AvahiServiceResolver* r, AvahiIfIndex, AvahiProtocol, AvahiResolverEvent event,
                          const char* serviceName, const char*, const char*, const char*, const AvahiAddress* address,
                          uint16_t port, AvahiStringList* txt, AvahiLookupResultFlags, void* userdata)
    {
        Impl& d = *static_cast<Impl*>(userdata);
        if (event == AVAHI_RESOLVER_FOUND && address != nullptr) {
            char text[AVAHI_ADDRESS_STR_MAX] = {};
            avahi_address_snprint(text, sizeof text, address);
            std::vector<std::string> entries;
            for (AvahiStringList* l = txt; l != nullptr; l = avahi_string_list_get_next(l)) {
                entries.emplace_back(reinterpret_cast<const char*>(avahi_string_list_get_text(l)),
                                     avahi_string_list_get_size(l));
            }
            DnsSdFound found;
            std::string error;
            std::string name = serviceName != nullptr ? serviceName : "";
            if (!ParseDnsSdService(name, text, port, entries, &found, &error)) {
                TNDR_LINK_LOGD("DNS-SD: ignored '%{public}s' at %{public}s: %{public}s", name.c_str(), text,
                               error.c_str());
            } else if (found.networkId != d.networkId) {
                {
                    std::lock_guard<std::mutex> lock(d.mu);
                    d.resolved++;
                }
                d.found(found);
            }
        }
        avahi_service_resolver_free(r);
    }
};

DnsSdDiscovery::DnsSdDiscovery() : impl_(std::make_unique<Impl>()) {}

DnsSdDiscovery::~DnsSdDiscovery()
{
    Stop();
}

bool DnsSdDiscovery::Start(const std::string& deviceName, uint32_t deviceType, const std::string& networkId,
                           uint16_t port, FoundHandler found, std::string* why)
{
    Impl& d = *impl_;
    d.name = deviceName.substr(0, 63);  // a DNS label
    d.deviceType = deviceType;
    d.networkId = networkId;
    d.port = port;
    d.found = std::move(found);
    d.poll = avahi_threaded_poll_new();
    if (d.poll == nullptr) {
        *why = "cannot start Avahi's event loop";
        d.SetOff(*why);
        return false;
    }
    // The client's callback may run inside avahi_client_new, before the loop's thread starts.
    int err = 0;
    d.client = avahi_client_new(avahi_threaded_poll_get(d.poll), static_cast<AvahiClientFlags>(0), &Impl::OnClient,
                                &d, &err);
    if (d.client == nullptr) {
        *why = err == AVAHI_ERR_NO_DAEMON ? std::string("no Avahi daemon runs")
                                          : std::string("the Avahi daemon did not answer: ") + avahi_strerror(err);
        TNDR_LINK_LOGI("DNS-SD is off: %{public}s; broadcast and static peers still work", why->c_str());
        d.SetOff(*why);
        avahi_threaded_poll_free(d.poll);
        d.poll = nullptr;
        return false;
    }
    if (avahi_threaded_poll_start(d.poll) < 0) {
        *why = "cannot start Avahi's event loop";
        d.SetOff(*why);
        avahi_client_free(d.client);
        d.client = nullptr;
        avahi_threaded_poll_free(d.poll);
        d.poll = nullptr;
        return false;
    }
    TNDR_LINK_LOGI("DNS-SD: publishing '%{public}s' as %{public}s on port %{public}u", d.name.c_str(),
                   DNS_SD_SERVICE_TYPE, port);
    return true;
}

void DnsSdDiscovery::Stop()
{
    Impl& d = *impl_;
    if (d.poll == nullptr) {
        return;
    }
    avahi_threaded_poll_stop(d.poll);
    // Frees the entry group, the browser and any resolver still waiting.
    avahi_client_free(d.client);
    d.client = nullptr;
    d.group = nullptr;
    d.browser = nullptr;
    avahi_threaded_poll_free(d.poll);
    d.poll = nullptr;
    d.SetOff("stopped");
}

std::string DnsSdDiscovery::Describe() const
{
    std::lock_guard<std::mutex> lock(impl_->mu);
    if (!impl_->running) {
        return "DNS-SD is off: " + impl_->offReason;
    }
    if (impl_->resolved == 0) {
        return std::string("DNS-SD (") + DNS_SD_SERVICE_TYPE + ") found no device";
    }
    return "DNS-SD found " + std::to_string(impl_->resolved) + " device(s)";
}

}  // namespace Tandra
}  // namespace QUEX
