// The session table, its kernel rules and the activate and deactivate
// handlers, against atsw-sim and a sysfs directory under the test's root.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "gateway/at_queue.h"
#include "sessions/activate_handlers.h"
#include "sessions/kernel_encaps.h"
#include "sessions/session_table.h"
#include "tests/embms/modem_fixture.h"

namespace {

const char* const S1 = "0000010F1001";
const char* const S2 = "0000020F2002";
const char* const S3 = "0000030F3003";
constexpr uint32_t GROUP = 0xEF010203;   // 239.1.2.3
constexpr uint32_t CLIENT = 0xC0A8010A;  // 192.168.1.10
constexpr uint32_t OTHER = 0xC0A8010B;   // 192.168.1.11
const std::string OK = "\r\nOK\r\n";

class Sessions : public ModemFixture {
 protected:
  void SetUp() override {
    ModemFixture::SetUp();
    for (const char* dir : {"/sys", "/sys/devices", "/sys/devices/virtual", "/sys/devices/virtual/net",
                            "/sys/devices/virtual/net/lte0"})
      mkdir((root_.path() + dir).c_str(), 0755);
  }
  std::string rule_file(const char* name) const {
    return zt::read_file(root_.path() + "/sys/devices/virtual/net/lte0/" + name);
  }
  // The current queue entry, as the dispatcher leaves it for the command server.
  static void command_from(uint32_t addr) {
    at_cmd_q_entry[at_cmd_q_entry_rd_index] = AtQEntry{addr, 40000, CHILD_MID, 9, CHILD_UCAST_PORT, 0, "AT"};
  }
  static void clear_table() { zor_db_num_entries = 0; }
  static std::vector<int32_t> ports() {
    std::vector<int32_t> p;
    for (int i = 0; i < zor_db_num_entries; ++i) p.push_back(zor_db[i].uc_port);
    return p;
  }
};

std::string mbms(const char* verb, int area, const char* tmgi) {
  return std::string("AT%MBMSCMD=\"") + verb + "\"," + std::to_string(area) + ",\"" + tmgi + "\"\n\r\n";
}

TEST_F(Sessions, TheTableRefusesATenthRecordAndDuplicates) {
  for (int32_t i = 0; i < ZOR_DB_MAX_ENTRIES; ++i) EXPECT_EQ(zor_db_insert_entry(S1, GROUP, CLIENT, 5000 + i, 1), 0);
  EXPECT_EQ(zor_db_insert_entry(S2, GROUP, CLIENT, 6000, 1), -1);
  EXPECT_EQ(zor_db_num_entries, ZOR_DB_MAX_ENTRIES);
  EXPECT_NE(log().find("err: zor db is full cannot insert new entry\n"), std::string::npos);

  clear_table();
  EXPECT_EQ(zor_db_insert_entry(S2, GROUP, CLIENT, 5000, 1), 0);
  EXPECT_EQ(zor_db_insert_entry(S1, GROUP, CLIENT, 5000, 1), 0);
  EXPECT_EQ(zor_db_insert_entry(S1, GROUP, CLIENT, 5000, 1), -1);
  EXPECT_NE(log().find("err: zor db cannot insert duplicate entries, former entry index is 1\n"), std::string::npos);
  struct Row {
    uint32_t mc;
    uint32_t uc;
    int32_t port;
    int32_t area;
  } others[] = {{GROUP, CLIENT, 5001, 1}, {GROUP, OTHER, 5000, 1}, {GROUP + 1, CLIENT, 5000, 1}, {GROUP, CLIENT, 5000, 2}};
  for (const Row& r : others) EXPECT_EQ(zor_db_insert_entry(S1, r.mc, r.uc, r.port, r.area), 0) << r.port;
  EXPECT_EQ(zor_db_num_entries, 6);
}

TEST_F(Sessions, RemovingARecordDeletesItsRuleThenMovesTheRestDown) {
  for (int32_t port = 5000; port < 5006; ++port) zor_db_insert_entry(S1, GROUP, CLIENT, port, 1);
  EXPECT_EQ(zor_db_remove_entry_by_index(3), 0);
  EXPECT_EQ(ports(), (std::vector<int32_t>{5000, 5001, 5002, 5004, 5005}));
  EXPECT_EQ(rule_file("ue_fw_mcast_encaps_del"), "239.1.2.3 0 192.168.1.10 5003\n");
  EXPECT_EQ(zt::count_of(log(), "ue_fw_mcast_encaps_del"), 1u);

  EXPECT_EQ(zor_db_remove_entry_by_index(5), -1);
  EXPECT_EQ(zor_db_get_entry_by_index(5), nullptr);
  EXPECT_EQ(zt::count_of(log(), "err: error: zor_db index 5 is invalid\n"), 2u);
  clear_table();
  EXPECT_EQ(zor_db_remove_entry_by_index(0), -1);
  EXPECT_NE(log().find("err: error cannot erase from zor db when it is empty\n"), std::string::npos);
}

TEST_F(Sessions, RemovingAClientListsTheSessionsNobodyElseReceives) {
  struct Record {
    const char* tmgi;
    uint32_t uc;
  };
  struct Row {
    const char* name;
    std::vector<Record> table;
    int32_t removed;
    std::vector<std::string> pairs;  // TMGI texts, in list order
    std::vector<uint32_t> left;      // clients of the records left, in order
  } rows[] = {
      {"adjacent records", {{S3, OTHER}, {S1, CLIENT}, {S2, CLIENT}, {S3, OTHER}}, 2, {S1, S2}, {OTHER, OTHER}},
      {"a shared session", {{S1, OTHER}, {S1, CLIENT}, {S2, CLIENT}}, 2, {S2}, {OTHER}},
      {"nothing of the client", {{S1, OTHER}}, 0, {}, {OTHER}},
  };
  for (const Row& row : rows) {
    clear_table();
    int32_t port = 5000;
    for (const Record& r : row.table) zor_db_insert_entry(r.tmgi, GROUP, r.uc, r.uc == CLIENT ? 6688 : port++, 1);
    zor_db_pair list[ZOR_DB_MAX_ENTRIES];
    int32_t count = -1;
    EXPECT_EQ(zor_db_remove_entries_by_ucast(CLIENT, 6688, &count, list), row.removed) << row.name;
    ASSERT_EQ(count, static_cast<int32_t>(row.pairs.size())) << row.name;
    for (int32_t i = 0; i < count; ++i) {
      EXPECT_EQ(std::string(list[i].tmgi, TMGI_SIZE), row.pairs[i]) << row.name;
      EXPECT_EQ(list[i].areaid, 1);
    }
    std::vector<uint32_t> left;
    for (int i = 0; i < zor_db_num_entries; ++i) left.push_back(zor_db[i].uc_addr);
    EXPECT_EQ(left, row.left) << row.name;
  }
}

TEST_F(Sessions, PrintsTheWholeTableInOneEntry) {
  std::string expected = "#    TMGI        AREAID MC_ADDR      UC_ADDR      UC_PORT\n";
  for (int i = 0; i < ZOR_DB_MAX_ENTRIES; ++i) {
    zor_db_insert_entry(S1, GROUP, CLIENT, 60000 + i, -2000000000 + i);
    expected += "[0" + std::to_string(i) + "] 0000010F1001 " + std::to_string(-2000000000 + i) +
                " 239.1.2.3 192.168.1.10 " + std::to_string(60000 + i) + " \n";
  }
  zor_db_print_db();
  EXPECT_NE(log().find(expected + "\n"), std::string::npos) << log();
}

TEST_F(Sessions, KernelRulesGoToTheSetAndDeleteFiles) {
  const std::string dir = root_.path() + "/sys/devices/virtual/net/lte0/";
  struct Row {
    int set;
    uint32_t mc;
    const char* file;
    std::string line;
  } rows[] = {
      {1, GROUP, "ue_fw_mcast_encaps_set", "239.1.2.3 0 192.168.1.10 5000\n"},
      {0, GROUP, "ue_fw_mcast_encaps_del", "239.1.2.3 0 192.168.1.10 5000\n"},
      {1, 0, "ue_fw_mcast_encaps_set", "0.0.0.0 0 192.168.1.10 5000\n"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(set_kernel_mcast_encaps(row.set, row.mc, 0, CLIENT, 5000), 0);
    EXPECT_EQ(rule_file(row.file), row.line);
    EXPECT_NE(log().find("data to kernel: echo " + row.line.substr(0, row.line.size() - 1) + " > " + dir + row.file + "\n"),
              std::string::npos)
        << row.line;
  }
  struct Text {
    const char* text;
    uint32_t addr;
  } texts[] = {{"239.1.2.3", GROUP}, {"192.168.1.10", CLIENT}, {"10.1", 0x0A010000}, {"", 0}, {"x.1.2.3", 0}};
  for (const Text& t : texts) EXPECT_EQ(parse_ipv4(t.text), t.addr) << t.text;
}

TEST_F(Sessions, TheModemHearsOfASessionOnceForAllItsReceivers) {
  const std::string relayed_ok = OK + "\r\n";  // the modem's OK passed on, then the link's line end
  struct Row {
    uint32_t client;
    int activate;
    std::string modem;
    std::string answer;
  } rows[] = {
      {CLIENT, 1, mbms("ACTIVATE", 1, S1), relayed_ok},
      {CLIENT, 1, "", OK},  // already active for this client
      {OTHER, 1, mbms("ACTIVATE", 1, S1), relayed_ok},
      {CLIENT, 0, "", OK},  // the other client still receives it
      {OTHER, 0, mbms("DEACTIVATE", 1, S1), relayed_ok + OK},
      {OTHER, 0, "", OK},  // not in the table
  };
  size_t seen = modem_bytes().size();
  for (const Row& row : rows) {
    command_from(row.client);
    zorSrv_handleActivateDeactivate(row.activate, 1, S1, GROUP);
    std::string modem = modem_bytes();
    EXPECT_EQ(modem.substr(seen), row.modem) << row.client << " " << row.activate;
    seen = modem.size();
    EXPECT_EQ(client_bytes(), row.answer) << row.client << " " << row.activate;
  }
  EXPECT_NE(log().find("will not send at command to fw since there is aleady tmgi & area id at index 0\n"),
            std::string::npos);
  EXPECT_EQ(rule_file("ue_fw_mcast_encaps_del"), "239.1.2.3 0 192.168.1.11 6688\n");
}

TEST_F(Sessions, DeactivatingAllOfAClientsSessions) {
  command_from(CLIENT);
  zorSrv_handleDeactivateAll();
  EXPECT_EQ(modem_bytes(), "AT\n");
  EXPECT_EQ(client_bytes(), OK + "\r\n" + OK);

  // Two sessions, one shared with another client: only the other one stops,
  // and its reply stays with the daemon.
  zor_db_insert_entry(S1, GROUP, OTHER, 6688, 1);
  zor_db_insert_entry(S1, GROUP, CLIENT, 6688, 1);
  zor_db_insert_entry(S2, GROUP, CLIENT, 6688, 7);
  zorSrv_handleDeactivateAll();
  EXPECT_EQ(modem_bytes(), "AT\nAT\n" + mbms("DEACTIVATE", 7, S2));
  EXPECT_EQ(client_bytes(), OK + "\r\n" + OK);
  EXPECT_EQ(zor_db_num_entries, 1);
  EXPECT_NE(log().find("deactivating 1\n"), std::string::npos);
}

}  // namespace
