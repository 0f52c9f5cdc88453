// The management records' byte layout: the agent reads them by position.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include "mirvak/mgmt_records.h"

namespace {

TEST(MgmtRecordsTest, AdapterInfoLayout) {
    EXPECT_EQ(sizeof(adapter_info), 2680u);
    EXPECT_EQ(offsetof(adapter_info, instance), 0u);
    EXPECT_EQ(offsetof(adapter_info, hw_byte_191), 4u);
    EXPECT_EQ(offsetof(adapter_info, hw_word_192), 8u);
    EXPECT_EQ(offsetof(adapter_info, hw_word_284), 12u);
    EXPECT_EQ(offsetof(adapter_info, hw_word_288), 16u);
    EXPECT_EQ(offsetof(adapter_info, hw_word_292), 20u);
    EXPECT_EQ(offsetof(adapter_info, hw_word_332), 24u);
    EXPECT_EQ(offsetof(adapter_info, reserved_28), 28u);
    EXPECT_EQ(offsetof(adapter_info, hw_text_246), 32u);
    EXPECT_EQ(sizeof(adapter_info::hw_text_246), 32u);
    EXPECT_EQ(offsetof(adapter_info, hw_text_296), 64u);
    EXPECT_EQ(offsetof(adapter_info, adapter_name), 96u);
    EXPECT_EQ(sizeof(adapter_info::adapter_name), 256u);
    EXPECT_EQ(offsetof(adapter_info, attributes), 352u);
    EXPECT_EQ(sizeof(adapter_info::attributes), 2192u);
    EXPECT_EQ(offsetof(adapter_info, hw_block_336), 2544u);
    EXPECT_EQ(sizeof(adapter_info::hw_block_336), 136u);
}

TEST(MgmtRecordsTest, PortInfoLayout) {
    EXPECT_EQ(sizeof(port_info), 972u);
    EXPECT_EQ(offsetof(port_info, adapter_name), 0u);
    EXPECT_EQ(offsetof(port_info, port_num), 256u);
    EXPECT_EQ(offsetof(port_info, rport_index), 260u);
    EXPECT_EQ(offsetof(port_info, attributes), 264u);
    EXPECT_EQ(sizeof(port_info::attributes), 632u);
    EXPECT_EQ(offsetof(port_info, attributes.NodeWWN), 264u);
    EXPECT_EQ(offsetof(port_info, attributes.PortWWN), 272u);
    EXPECT_EQ(offsetof(port_info, attributes.PortFcId), 280u);
    EXPECT_EQ(offsetof(port_info, attributes.PortType), 284u);
    EXPECT_EQ(offsetof(port_info, attributes.PortState), 288u);
    EXPECT_EQ(offsetof(port_info, attributes.PortSupportedClassofService), 292u);
    EXPECT_EQ(offsetof(port_info, attributes.PortSpeed), 876u);
    EXPECT_EQ(offsetof(port_info, attributes.NumberofDiscoveredPorts), 892u);
    EXPECT_EQ(offsetof(port_info, lnode_id), 896u);
    EXPECT_EQ(offsetof(port_info, lnode_word_5), 900u);
    EXPECT_EQ(offsetof(port_info, lnode_mac), 904u);
    EXPECT_EQ(offsetof(port_info, port_mac), 910u);
    EXPECT_EQ(offsetof(port_info, phys_port), 916u);
    EXPECT_EQ(sizeof(port_info::phys_port), 2u);
    EXPECT_EQ(offsetof(port_info, fcf_index), 918u);
    EXPECT_EQ(offsetof(port_info, lnode_word_148), 922u);
    EXPECT_EQ(offsetof(port_info, lnode_flag), 926u);
    EXPECT_EQ(offsetof(port_info, lnode_word_28), 927u);
    EXPECT_EQ(offsetof(port_info, vlan_id), 931u);
    EXPECT_EQ(sizeof(port_info::vlan_id), 1u);
    EXPECT_EQ(offsetof(port_info, rnode_index), 932u);
    EXPECT_EQ(offsetof(port_info, role), 936u);
    EXPECT_EQ(sizeof(port_info::role), 32u);
    EXPECT_EQ(offsetof(port_info, rnode_byte_12), 968u);
}

TEST(MgmtRecordsTest, VportInLayout) {
    EXPECT_EQ(sizeof(vport_in), 287u);
    EXPECT_EQ(offsetof(vport_in, adapter_name), 0u);
    EXPECT_EQ(offsetof(vport_in, port_num), 256u);
    EXPECT_EQ(sizeof(vport_in::port_num), 2u);
    EXPECT_EQ(offsetof(vport_in, vport_index), 258u);
    EXPECT_EQ(offsetof(vport_in, rport_index), 260u);
    EXPECT_EQ(sizeof(vport_in::rport_index), 2u);
    EXPECT_EQ(offsetof(vport_in, vport_wwpn), 263u);
    EXPECT_EQ(offsetof(vport_in, rport_wwpn), 279u);
}

TEST(MgmtRecordsTest, PortStatsLayout) {
    EXPECT_EQ(sizeof(port_stats), 432u);
    EXPECT_EQ(offsetof(port_stats, port_num), 256u);
    EXPECT_EQ(offsetof(port_stats, rport_index), 260u);
    EXPECT_EQ(offsetof(port_stats, counter0), 264u);
    EXPECT_EQ(offsetof(port_stats, counter1), 268u);
    EXPECT_EQ(offsetof(port_stats, counter2), 272u);
    EXPECT_EQ(offsetof(port_stats, counter3), 276u);
    EXPECT_EQ(offsetof(port_stats, hba_stats), 280u);
    EXPECT_EQ(sizeof(port_stats::hba_stats), 120u);
    EXPECT_EQ(offsetof(port_stats, counter4), 400u);
    EXPECT_EQ(offsetof(port_stats, counter5), 404u);
    EXPECT_EQ(offsetof(port_stats, counter6), 408u);
    EXPECT_EQ(offsetof(port_stats, counter7), 412u);
    EXPECT_EQ(offsetof(port_stats, rcounter0), 416u);
    EXPECT_EQ(offsetof(port_stats, rcounter1), 420u);
    EXPECT_EQ(offsetof(port_stats, rcounter2), 424u);
    EXPECT_EQ(offsetof(port_stats, rcounter3), 428u);
}

TEST(MgmtRecordsTest, LunInfoLayout) {
    EXPECT_EQ(sizeof(lun_info), 1040u);
    EXPECT_EQ(offsetof(lun_info, size), 8u);
    EXPECT_EQ(sizeof(lun_info::size), 8u);
    EXPECT_EQ(offsetof(lun_info, hctl), 16u);
    EXPECT_EQ(sizeof(lun_info::hctl), 256u);
    EXPECT_EQ(offsetof(lun_info, device), 272u);
    EXPECT_EQ(sizeof(lun_info::device), 512u);
    EXPECT_EQ(offsetof(lun_info, vendor), 784u);
    EXPECT_EQ(sizeof(lun_info::vendor), 256u);
}

// Arrays of records are copied whole into the agent's buffers: no record
// may carry tail padding.
TEST(MgmtRecordsTest, ArraysHaveNoGapsBetweenRecords) {
    port_info ports[2];
    lun_info luns[2];
    EXPECT_EQ(reinterpret_cast<char*>(&ports[1]) - reinterpret_cast<char*>(&ports[0]), 972);
    EXPECT_EQ(reinterpret_cast<char*>(&luns[1]) - reinterpret_cast<char*>(&luns[0]), 1040);
    EXPECT_EQ(sizeof(vport_in[3]), 3u * 287u);
}

// The embedded standard structures keep their own alignment, so their
// addresses can be handed to the standard entry points.
TEST(MgmtRecordsTest, EmbeddedStandardRecordsStayAligned) {
    port_info p;
    port_stats s;
    adapter_info a;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&p.attributes) % alignof(HBA_PORTATTRIBUTES), 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&s.hba_stats) % alignof(HBA_PORTSTATISTICS), 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&a.attributes) % alignof(HBA_ADAPTERATTRIBUTES), 0u);
}

TEST(MgmtRecordsTest, UnalignedWordIsWrittenInPlaceLittleEndian) {
    port_info p;
    std::memset(&p, 0xA5, sizeof p);
    p.lnode_word_28 = 0x11223344u;
    const auto* b = reinterpret_cast<const uint8_t*>(&p);
    EXPECT_EQ(b[926], 0xA5);
    EXPECT_EQ(b[927], 0x44);
    EXPECT_EQ(b[928], 0x33);
    EXPECT_EQ(b[929], 0x22);
    EXPECT_EQ(b[930], 0x11);
    EXPECT_EQ(b[931], 0xA5);
    EXPECT_EQ(p.lnode_word_28, 0x11223344u);
}

TEST(MgmtRecordsTest, UnalignedWordIsReadFromItsBytes) {
    port_info p;
    std::memset(&p, 0, sizeof p);
    auto* b = reinterpret_cast<uint8_t*>(&p);
    const uint8_t word[4] = {0x01, 0x02, 0x03, 0x04};
    std::memcpy(b + 927, word, 4);
    EXPECT_EQ(p.lnode_word_28, 0x04030201u);
    EXPECT_EQ(mv::load<uint32_t>(b + 927), 0x04030201u);
}

TEST(MgmtRecordsTest, LoadAndStoreWorkAtAnyByte) {
    uint8_t bytes[16] = {};
    mv::store<uint32_t>(bytes + 3, 0xCAFEF00Du);
    mv::store<uint16_t>(bytes + 9, 0xBEEF);
    EXPECT_EQ(bytes[3], 0x0D);
    EXPECT_EQ(bytes[6], 0xCA);
    EXPECT_EQ(bytes[2], 0);
    EXPECT_EQ(bytes[7], 0);
    EXPECT_EQ(mv::load<uint32_t>(bytes + 3), 0xCAFEF00Du);
    EXPECT_EQ(mv::load<uint16_t>(bytes + 9), 0xBEEF);
}

TEST(MgmtRecordsTest, KeyWwnIsGivenOnlyWhenItsFirstByteIsNonZero) {
    port_info p;
    std::memset(&p, 0, sizeof p);
    std::memset(reinterpret_cast<uint8_t*>(&p) + 273, 0xFF, 7);
    EXPECT_FALSE(mv::wwn_given(p.attributes.PortWWN));
    reinterpret_cast<uint8_t*>(&p)[272] = 0x20;
    EXPECT_TRUE(mv::wwn_given(p.attributes.PortWWN));

    vport_in v;
    std::memset(&v, 0, sizeof v);
    std::memset(v.vport_wwpn + 1, 0x11, 7);
    EXPECT_FALSE(mv::wwn_given(v.vport_wwpn));
    reinterpret_cast<uint8_t*>(&v)[279] = 0x50;
    EXPECT_TRUE(mv::wwn_given(v.rport_wwpn));
}

TEST(MgmtRecordsTest, VportInSixteenBitFieldsSitAtOddPlacesOfTheKey) {
    vport_in v;
    std::memset(&v, 0, sizeof v);
    v.port_num = 0x0102;
    v.vport_index = 0x0304;
    v.rport_index = 0x0506;
    const auto* b = reinterpret_cast<const uint8_t*>(&v);
    const uint8_t want[6] = {0x02, 0x01, 0x04, 0x03, 0x06, 0x05};
    EXPECT_EQ(std::memcmp(b + 256, want, 6), 0);
    EXPECT_EQ(b[262], 0);
}

}  // namespace
