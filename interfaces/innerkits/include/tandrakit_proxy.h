// TandraProxy: the client proxy of the framework's system service (system ability 70633).
// It is looked up once and cached in class-wide statics; DestoryInstance forgets it (the
// service died) so that the next request looks the service up anew.
// Thread-safety: every static may be called from any thread; the cache sits behind one
// reader/writer mutex, which is never held while a request is sent.
#pragma once

#include <cstdint>
#include <shared_mutex>

#include "iremote_proxy.h"
#include "itandra_service.h"

namespace QUEX::Tandra {

class TandraProxy : public IRemoteProxy<ITandraService> {
public:
    static constexpr int32_t TANDRA_SA_ID = 0x113E9;  // 70633

    explicit TandraProxy(const sptr<IRemoteObject>& object);
    ~TandraProxy() override;
    TandraProxy(const TandraProxy&) = delete;
    TandraProxy& operator=(const TandraProxy&) = delete;

    // The cached proxy, looked up on first use; null while the service cannot be reached.
    static sptr<TandraProxy> GetInstance();
    // The service's remote object behind the proxy (for death recipients); null when none.
    static sptr<IRemoteObject> GetTandraRemoteObject();
    static void DestoryInstance();
    // Writes the request envelope: token, then the five Uint32. 0, 1006 or 1007.
    static int32_t BuildCollaborationServiceCode(MessageParcel& data, uint32_t serviceType, uint32_t subServiceType,
                                                 uint32_t operateCode, uint32_t subOperateCode, uint32_t command);

    // Each sends data with its request code: 0, 1009 without a remote object, 1008 when the
    // transport fails. The reply is left for the caller to read.
    int32_t GetCollaborationServiceEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    int32_t CollaborationToDeviceEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    int32_t DevicePickerEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    int32_t CommonDataChannelEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    int32_t SurfaceTransferEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    int32_t IConnectDownMessageEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) override;
    int32_t MeshlineEvent(MessageParcel& data, MessageParcel& reply, MessageOption& option) override;

private:
    int32_t SendServiceRequest(uint32_t code, MessageParcel& data, MessageParcel& reply, MessageOption& option);

    static sptr<TandraProxy> instance_;
    static sptr<IRemoteObject> tndrObject_;
    static std::shared_mutex mutex_;
};

}  // namespace QUEX::Tandra
