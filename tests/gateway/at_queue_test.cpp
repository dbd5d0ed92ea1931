// The shared client table, its locks and the hand-over socket pairs.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "core/log.h"
#include "gateway/at_queue.h"
#include "tests/support/process.h"

namespace {

class AtQueue : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(log_open(root_.log_path().c_str()), nullptr);
    ASSERT_EQ(init_shared_ipc(), 0);
  }
  static void fill(int slot, int fd) {
    childs[slot] = ChildEntry{CHILD_MID, 4000u + static_cast<uint32_t>(slot), 0x7f000002u, fd, CHILD_UCAST_PORT, 1, 1, 7};
  }
  zt::TempRoot root_;
};

TEST_F(AtQueue, RemoveChildByFd) {
  struct Row {
    const char* name;
    int fds[MAX_CHILDS];  // connfd per slot, 0 = free
    int32_t count;
    int remove;
    int result;
    int cleared_slot;  // -1: none
    int32_t count_after;
  } rows[] = {
      {"slot 3 of four", {5, 6, 7, 8}, 4, 8, 1, 3, 3},
      {"unknown fd", {5, 6, 7, 8}, 4, 99, 0, -1, 4},
      {"count already 0", {5}, 0, 5, 1, 0, 0},
      {"first of two equal fds", {5, 5}, 2, 5, 1, 0, 1},
      {"fd 0 takes the first free slot", {5, 0, 7}, 2, 0, 1, 1, 1},
  };
  for (const Row& row : rows) {
    memset(childs, 0, sizeof(ChildEntry) * CHILD_SLOTS);
    for (int i = 0; i < MAX_CHILDS; ++i)
      if (row.fds[i] != 0) fill(i, row.fds[i]);
    *childs_count = row.count;

    EXPECT_EQ(remove_child_by_fd(row.remove), row.result) << row.name;
    EXPECT_EQ(*childs_count, row.count_after) << row.name;
    for (int i = 0; i < MAX_CHILDS; ++i) {
      bool cleared = i == row.cleared_slot;
      ChildEntry zero{};
      EXPECT_EQ(memcmp(&childs[i], &zero, sizeof zero) == 0, cleared || row.fds[i] == 0)
          << row.name << ", slot " << i;
    }
  }
  EXPECT_NE(zt::read_file(root_.log_path()).find("remove connfd 8 from index 3 of childs\n"), std::string::npos);
}

TEST_F(AtQueue, FindChildByAddrNeedsAddressAndPort) {
  memset(childs, 0, sizeof(ChildEntry) * CHILD_SLOTS);
  fill(4, 12);
  int slot = -1;
  EXPECT_EQ(find_child_by_addr(0x7f000002u, 4004u, &slot), 0);
  EXPECT_EQ(slot, 4);
  EXPECT_EQ(find_child_by_addr(0x7f000002u, 4005u, &slot), -1);
  EXPECT_EQ(find_child_by_addr(0x7f000003u, 4004u, &slot), -1);
}

TEST_F(AtQueue, SocketPairsCarryABlockAddress) {
  for (int* pair : {at_cmd_sockfd, at_unsol_sockfd}) {
    auto* block = new AtQEntry{};
    ASSERT_EQ(write(pair[1], &block, sizeof block), static_cast<ssize_t>(sizeof block));
    AtQEntry* got = nullptr;
    ASSERT_EQ(read(pair[0], &got, sizeof got), static_cast<ssize_t>(sizeof got));
    EXPECT_EQ(got, block);
    delete got;
  }
}

TEST_F(AtQueue, LocksExcludeOtherThreads) {
  for (pthread_mutex_t* mutex : {&childs_mtx, &atq_mtx.mutex}) {
    ASSERT_EQ(pthread_mutex_lock(mutex), 0);
    int other = 0;
    std::thread([&] { other = pthread_mutex_trylock(mutex); }).join();
    EXPECT_EQ(other, EBUSY);
    EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
  }
  EXPECT_EQ(pthread_cond_signal(&atq_mtx.cond), 0);
}

TEST_F(AtQueue, ClientTableIsSharedWithAForkedChild) {
  memset(childs, 0, sizeof(ChildEntry) * CHILD_SLOTS);
  pid_t pid = fork();
  if (pid == 0) {
    childs[2].connfd = 42;
    *childs_count = 1;
    _exit(0);
  }
  int status = 0;
  ASSERT_TRUE(zt::wait_exit(pid, &status, 20000));
  EXPECT_EQ(childs[2].connfd, 42);
  EXPECT_EQ(*childs_count, 1);
}

#ifdef ZORD_TARGET_MIPS
// On the router the block address is 4 bytes and host order is network order.
TEST(Target, IsThirtyTwoBitBigEndian) {
  EXPECT_EQ(sizeof(AtQEntry*), 4u);
  EXPECT_EQ(htonl(0x01020304u), 0x01020304u);
}
#endif

}  // namespace
