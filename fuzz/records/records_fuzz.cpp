// The parcelable records that cross IPC, read from arbitrary bytes: the photo records, the
// connection manager's task, state and resource records, and the picker's records. A record
// that reads must write back to bytes that read to the same record: writing what was read is a
// fixed point after one round.
// Input: Uint8 record kind (modulo the number of kinds), then the parcel bytes.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "collaboration_records.h"
#include "meshline_info.h"
#include "parcel.h"
#include "photo_callerInfo.h"
#include "vex_log.h"

using namespace QUEX::Tandra;

namespace {

template <typename T>
Vex::sptr<T> Read(Vex::Parcel& parcel)
{
    return Vex::sptr<T>(T::Unmarshalling(parcel));
}

// Reads a record, writes it, reads that and writes it again: both writes must agree.
template <typename T>
void RoundTrip(const uint8_t* data, size_t size)
{
    Vex::Parcel input;
    input.WriteBuffer(data, size);
    Vex::sptr<T> record = Read<T>(input);
    if (record == nullptr) {
        return;
    }
    Vex::Parcel first;
    if (!record->Marshalling(first)) {
        return;
    }
    Vex::sptr<T> again = Read<T>(first);
    if (again == nullptr) {
        std::fprintf(stderr, "a record that was read and written does not read back\n");
        std::abort();
    }
    Vex::Parcel second;
    if (!again->Marshalling(second) || second.GetDataSize() != first.GetDataSize() ||
        std::memcmp(second.GetData(), first.GetData(), first.GetDataSize()) != 0) {
        std::fprintf(stderr, "a record written twice gives different bytes\n");
        std::abort();
    }
}

using Reader = void (*)(const uint8_t*, size_t);
const Reader READERS[] = {
    RoundTrip<PhotoInfo>,          RoundTrip<PhotoCallerInfo>,      RoundTrip<DistributeTaskInfo>,
    RoundTrip<ServiceStateInfo>,   RoundTrip<HardwareRequest>,      RoundTrip<CommunicationRequest>,
    RoundTrip<ResourceRequest>,    RoundTrip<PickerResult>,         RoundTrip<DeviceInfo>,
    RoundTrip<LocalInfo>,          RoundTrip<AbilityFilter>,
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Vex::SetLogSink([](const Vex::LogRecord&) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    READERS[data[0] % std::size(READERS)](data + 1, size - 1);
    return 0;
}
