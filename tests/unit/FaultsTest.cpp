// Faults, set as a user sets them, and what they do to the calls of this process.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <array>
#include <cerrno>
#include <set>

#include "VEXA.h"
#include "model/Faults.h"
#include "unit/UnitUnderTest.h"
#include "vexcri.h"
#include "zt_usb.h"

namespace vexa::unit {
namespace {

using ::testing::ElementsAre;

void SetFault(const std::string& members) {
    const auto answer = Ask("fault.set", members);
    EXPECT_EQ(answer["ok"], true) << answer;
}

class Faults : public ::testing::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(Ask("fault.clear")["ok"], true);
        EXPECT_EQ(VEXA_Uninit(library), 0);
    }

    [[nodiscard]] std::uint32_t Open(const char* device) {
        return VEXA_Device_Stream_Open(library, device, CollectBlock, 3, &blocks);
    }
    [[nodiscard]] std::uint32_t Snapshot() const {
        std::uint32_t unused = 0;
        return VEXA_OpenDeviceListSnapshot(library, 8, &unused, &unused);
    }
    [[nodiscard]] static std::uint32_t Session() {
        static Answers ignored;
        std::uint32_t session = 0;
        return criInit("FGEN", 1, CollectAnswer, &ignored, &session) == 1 ? session : 0;
    }

    const std::uint32_t library = VEXA_Init();
    Blocks blocks;
    std::uint32_t word = 0;
    std::uint16_t number = 0;
    std::array<char, 220> name{};
};

TEST_F(Faults, HitEachCallOfTheLibrariesAndLetItGo) {
    struct Use {
        const char* call;
        std::function<bool()> works;
    };
    const Use uses[] = {
        {"VEXA_Init", [] { return VEXA_Uninit(VEXA_Init()) == 0; }},
        {"VEXA_Uninit", [] { return VEXA_Uninit(VEXA_Init()) == 0; }},
        {"VEXA_GetDLLVersion", [&] { return VEXA_GetDLLVersion(library, &number, &number) == 0; }},
        {"VEXA_Diags_SetDebugTraceThreshold",
         [&] { return VEXA_Diags_SetDebugTraceThreshold(library, 1) == 0; }},
        {"VEXA_GetDeviceTypeFromDeviceName",
         [&] { return VEXA_GetDeviceTypeFromDeviceName("Quiet", &word) == 0; }},
        {"VEXA_SearchForDevices",
         [&] { return VEXA_SearchForDevices(library, 8, 1, 0, &word) == 0; }},
        {"VEXA_OpenDeviceListSnapshot", [&] { return Snapshot() != 0; }},
        {"VEXA_DeviceListSnapshot_GetNthEntry",
         [&] {
             return VEXA_DeviceListSnapshot_GetNthEntry(Snapshot(), 0, name.data(), 220, &word) ==
                    0;
         }},
        {"VEXA_CloseDeviceListSnapshot",
         [&] { return VEXA_CloseDeviceListSnapshot(Snapshot()) == 0; }},
        {"VEXA_Device_Stream_Open", [&] { return Open("Quiet") != 0; }},
        {"VEXA_Device_Stream_Write",
         [&] { return VEXA_Device_Stream_Write(Open("Quiet"), "x", 1) == 0; }},
        {"VEXA_Device_Stream_Close", [&] { return VEXA_Device_Stream_Close(Open("Quiet")) == 0; }},
        {"VEXA_Device_GetOpenDeviceName",
         [&] { return VEXA_Device_GetOpenDeviceName(Open("Quiet"), name.data(), 220) == 0; }},
        {"VEXA_Device_Open", [&] { return VEXA_Device_Open(library, "Quiet", 1) != 0; }},
        {"VEXA_Device_Close",
         [&] { return VEXA_Device_Close(VEXA_Device_Open(library, "Quiet", 1)) == 0; }},
        {"criInit", [] { return criTerminate(Session(), 1) == 1; }},
        {"criCommand", [] { return criCommand(Session(), 4, 0) == 1; }},
        {"criTerminate", [] { return criTerminate(Session(), 1) == 1; }},
    };
    std::set<std::string> used;
    for (const auto& [call, works] : uses) {
        const std::string member = R"("call": ")" + std::string(call) + "\", ";
        SetFault(member + R"("action": "fail", "skip": 1, "count": 1)");
        SetFault(member + R"("action": "block", "ms": 1)");
        SetFault(member + R"("action": "late", "ms": 1)");
        EXPECT_TRUE(works()) << call;
        EXPECT_FALSE(works()) << call;
        EXPECT_TRUE(works()) << call;
        const auto faults = Ask("fault.list")["faults"];
        EXPECT_EQ(faults[0]["hits"], 1) << call;
        EXPECT_EQ(faults[1]["hits"], 3) << call;
        EXPECT_EQ(faults[2]["hits"], 3) << call;
        (void)Ask("fault.clear");
        used.insert(call);
    }
    std::set<std::string> all;
    for (const auto& call : kCalls) {
        if (call.name.starts_with("VEXA_") || call.name.starts_with("cri")) all.emplace(call.name);
    }
    EXPECT_EQ(used, all);
}

TEST_F(Faults, AreLimitedToADevice) {
    SetFault(R"("call": "VEXA_Device_Stream_Write", "action": "fail", "for": "Tilt")");
    EXPECT_EQ(VEXA_Device_Stream_Write(Open("Quiet"), "x", 1), 0);
    EXPECT_NE(VEXA_Device_Stream_Write(Open("Tilt"), "x", 1), 0);
}

TEST_F(Faults, SpoilWhatADeviceSends) {
    SetFault(R"("call": "data", "action": "corrupt", "count": 1)");
    SetFault(R"("call": "data", "action": "corrupt", "skip": 1, "count": 1, "offset": 0)");
    SetFault(R"("call": "data", "action": "oversize", "skip": 2, "count": 1, "bytes": 5)");
    const auto stream = Open("Quiet");
    for (int times = 0; times < 4; ++times)
        (void)VEXA_Device_Stream_Write(stream, "\x01\x02\x03", 3);
    EXPECT_THAT(blocks.Await(4), ElementsAre(Bytes{1, 0xFD, 3}, Bytes{0xFE, 2, 3},
                                             Bytes{1, 2, 3, 1, 2}, Bytes{1, 2, 3}));
}

TEST_F(Faults, LetADeviceSendWhileItsStreamIsBeingClosed) {
    SetFault(R"("call": "VEXA_Device_Stream_Close", "action": "data")");
    const auto stream = Open("Quiet");
    EXPECT_EQ(VEXA_Device_Stream_Close(stream), 0);
    EXPECT_EQ(blocks.Await(0).size(), 1U) << "it has come when the call returns";
}

TEST_F(Faults, SpoilTheNode) {
    SetFault(R"("call": "node.open", "action": "fail", "errno": "ENODEV", "count": 1)");
    EXPECT_LT(::open(ZT_USB_NODE, O_RDWR), 0);
    EXPECT_EQ(errno, ENODEV);
    const Descriptor node(::open(ZT_USB_NODE, O_RDWR));
    const Descriptor host = ConnectHost(UnitFolderUnderTest());
    int isIn = 0;
    ASSERT_TRUE(
        Eventually([&] { return ::ioctl(node.Get(), ZTG_LINK_STATUS, &isIn) == 0 && isIn != 0; }));
    SetFault(R"("call": "node.ioctl", "action": "fail", "count": 1)");
    EXPECT_EQ(::ioctl(node.Get(), ZTG_LINK_STATUS, &isIn), -1);
    EXPECT_EQ(errno, EIO);

    SetFault(R"("call": "node.write", "action": "short", "bytes": 4, "count": 1)");
    EXPECT_EQ(::write(node.Get(), "to the host", 11), 4);
    EXPECT_EQ(Receive(host, 4), "to t");
    SetFault(R"("call": "node.read", "action": "fail", "errno": "EINTR", "count": 1)");
    SetFault(R"("call": "node.read", "action": "short", "bytes": 2, "skip": 1)");
    ASSERT_EQ(::send(host.Get(), "abc", 3, 0), 3);
    EXPECT_EQ(::read(node.Get(), name.data(), name.size()), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(::read(node.Get(), name.data(), name.size()), 2);
    EXPECT_EQ(::read(node.Get(), name.data(), name.size()), 1);
}

}  // namespace
}  // namespace vexa::unit
