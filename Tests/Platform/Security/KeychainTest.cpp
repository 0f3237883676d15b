#include "Platform/Security/Keychain.h"

#include <malloc.h>

#include "Platform/Security/Digest.h"
#include "Platform/Security/Sealing.h"
#include "Tests/Support/Testing.h"

namespace {

// What the program gives back to the heap is looked through for these while somebody asks.
std::array<std::array<char, 32>, 2> secrets;
std::atomic<bool> looksForSecrets{false};
std::atomic<int> secretsGivenBack{0};

void giveBack(void* memory) noexcept {
  if (memory != nullptr && looksForSecrets)
    for (const auto& secret : secrets)
      secretsGivenBack +=
          memmem(memory, malloc_usable_size(memory), secret.data(), secret.size()) != nullptr;
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size);
}
void operator delete(void* memory) noexcept {
  giveBack(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  giveBack(memory);
}

namespace {

constexpr auto kUnlocked = KeychainAccessibility::whenUnlocked;
constexpr auto kThisDevice = KeychainAccessibility::afterFirstUnlockThisDeviceOnly;

/// A keychain, and a machine with an id, of the test's own. Nothing is kept between calls, so that
/// every look-up is one after a restart.
struct KeychainTest : testing::Test {
  KeychainTest() { becomeMachine('a'); }
  ~KeychainTest() override { DeviceLock::setLocked(false); }
  void becomeMachine(char digit) {
    writeFile(system_ / "etc/machine-id", std::string(32, digit) + "\n");
  }
  static KeychainQuery query(std::string account, std::string service = "service") {
    return {std::move(service), Data(account), Data(account)};
  }
  static std::string valueOf(const KeychainQuery& query) {
    Data value;
    const OSStatus status = SecItemCopyMatching(query, &value);
    return status == errSecSuccess ? value.string() : std::to_string(status);
  }
  std::string folder() const { return home_ / "state/skelda-keychain"; }
  std::string file() const {
    for (const auto& name : namesIn(folder()))
      if (name.ends_with(".json")) return folder() + "/" + name;
    return {};
  }
  void replaceInFile(const std::string& from, const std::string& to) {
    std::string text = readFile(file());
    ASSERT_NE(text.find(from), std::string::npos);
    writeFile(file(), text.replace(text.find(from), from.size(), to));
  }

  TemporaryHome home_;
  SystemFolder system_;
};

TEST_F(KeychainTest, ItemsAreAddedReadReplacedAndRemoved) {
  EXPECT_EQ(valueOf(query("id")), std::to_string(errSecItemNotFound));
  EXPECT_FALSE(std::filesystem::exists(folder())) << "reading makes nothing";
  ASSERT_EQ(SecItemAdd(query("id"), Data("one"), kUnlocked), errSecSuccess);
  EXPECT_EQ(SecItemAdd(query("id"), Data("two"), kThisDevice), errSecDuplicateItem);
  EXPECT_EQ(SecItemAdd(query("id", "other"), Data(""), kUnlocked), errSecSuccess);
  EXPECT_EQ(valueOf(query("id")), "one");
  EXPECT_EQ(valueOf(query("id", "other")), "");
  EXPECT_EQ(SecItemUpdate(query("id"), Data("three")), errSecSuccess);
  EXPECT_EQ(valueOf(query("id")), "three");
  EXPECT_EQ(SecItemDelete(query("id")), errSecSuccess);
  EXPECT_EQ(valueOf(query("id")), std::to_string(errSecItemNotFound));
  EXPECT_EQ(SecItemDelete(query("id")), errSecItemNotFound);
  EXPECT_EQ(SecItemUpdate(query("id"), Data("four")), errSecItemNotFound);
  EXPECT_EQ(SecItemAdd(query(""), Data("x"), kUnlocked), errSecParam);
  EXPECT_EQ(SecItemAdd(query("id", "\xff"), Data("x"), kUnlocked), errSecParam);

  for (const auto& entry : std::filesystem::directory_iterator(folder())) {
    EXPECT_EQ(modeOf(entry.path()), 0600u) << entry.path();
    EXPECT_EQ(readFile(entry.path().string()).find("three"), std::string::npos);
  }
}

TEST_F(KeychainTest, ALockedDeviceKeepsItsUnlockedItemsClosed) {
  ASSERT_EQ(SecItemAdd(query("open"), Data("1"), kUnlocked), errSecSuccess);
  ASSERT_EQ(SecItemAdd(query("device"), Data("2"), kThisDevice), errSecSuccess);
  DeviceLock::setLocked(true);
  for (const OSStatus status :
       {SecItemCopyMatching(query("open"), nullptr), SecItemUpdate(query("open"), Data("x")),
        SecItemDelete(query("open")), SecItemAdd(query("more"), Data("x"), kUnlocked)})
    EXPECT_EQ(status, errSecInteractionNotAllowed);
  EXPECT_EQ(valueOf(query("device")), "2");
  DeviceLock::setLocked(false);
  EXPECT_EQ(valueOf(query("open")), "1");
}

TEST_F(KeychainTest, ThisDeviceItemsDoNotOpenOnAnotherMachine) {
  ASSERT_EQ(SecItemAdd(query("device"), Data("2"), kThisDevice), errSecSuccess);
  ASSERT_EQ(SecItemAdd(query("any"), Data("1"), kUnlocked), errSecSuccess);
  becomeMachine('b');
  EXPECT_EQ(SecItemCopyMatching(query("device"), nullptr), errSecDecode);
  EXPECT_EQ(valueOf(query("any")), "1");
  EXPECT_EQ(SecItemUpdate(query("device"), Data("3")), errSecSuccess) << "a new value heals it";
  EXPECT_EQ(valueOf(query("device")), "3");
}

TEST_F(KeychainTest, TamperedItemsDoNotOpen) {
  const std::tuple<const char*, const char*, OSStatus> changes[] = {
      {"\"sealed\": \"", "\"sealed\": \"AAAA", errSecDecode},
      {"\"sealed\": \"", "\"another\": \"", errSecItemNotFound},
      {"\"nonce\": \"", "\"nonce\": \"AAAA", errSecDecode},
      {"afterFirstUnlockThisDeviceOnly", "whenUnlocked", errSecDecode},
      {"afterFirstUnlockThisDeviceOnly", "always", errSecItemNotFound},
      {"\"service\": \"service\"", "\"service\": \"another\"", errSecDecode},
      {"\"version\": 1", "\"version\": 2", errSecDecode},
      {"{", "[", errSecDecode}};
  for (const auto& [from, to, status] : changes) {
    ASSERT_EQ(SecItemAdd(query("id"), Data("secret"), kThisDevice), errSecSuccess);
    replaceInFile(from, to);
    EXPECT_EQ(SecItemCopyMatching(query("id"), nullptr), status) << to;
    std::filesystem::remove(file());
  }
  // Sealed bytes moved to another account of the same service.
  ASSERT_EQ(SecItemAdd(query("id"), Data("secret"), kUnlocked), errSecSuccess);
  replaceInFile("aWQ=", "aWE=");
  replaceInFile("aWQ=", "aWE=");
  EXPECT_EQ(SecItemCopyMatching(query("ia"), nullptr), errSecDecode);
  std::filesystem::remove(folder() + "/sealing.key");
  EXPECT_EQ(SecItemCopyMatching(query("ia"), nullptr), errSecDecode);
}

TEST_F(KeychainTest, ADamagedFileIsSetAsideByTheNextItem) {
  ASSERT_EQ(SecItemAdd(query("id"), Data("old"), kUnlocked), errSecSuccess);
  const std::string path = file();
  writeFile(path, "garbage");
  EXPECT_EQ(SecItemUpdate(query("id"), Data("new")), errSecDecode);
  EXPECT_EQ(SecItemDelete(query("id")), errSecDecode);
  EXPECT_EQ(SecItemAdd(query("id"), Data("new"), kUnlocked), errSecSuccess);
  EXPECT_EQ(valueOf(query("id")), "new");
  EXPECT_EQ(readFile(path + ".damaged"), "garbage");
}

TEST_F(KeychainTest, AKeyThatIsNoneIsSetAsideByTheNextWrite) {
  const std::string key = folder() + "/sealing.key";
  const std::function<void()> damages[] = {
      [&] { writeFile(key, ""); }, [&] { writeFile(key, std::string(31, 'k')); },
      [&] { writeFile(key, std::string(33, 'k')); },
      [&] { std::filesystem::create_directories(key + "/folder"); }};
  ASSERT_EQ(SecItemAdd(query("id"), Data("old"), kThisDevice), errSecSuccess);
  for (const auto& damage : damages) {
    std::filesystem::remove(key);
    damage();
    LogCapture log;
    EXPECT_EQ(SecItemCopyMatching(query("id"), nullptr), errSecDecode);
    EXPECT_EQ(SecItemUpdate(query("id"), Data("new")), errSecSuccess);
    EXPECT_EQ(valueOf(query("id")), "new");
    EXPECT_EQ(log.count("sealing.key is no key"), 1u);
  }
  EXPECT_EQ(readFile(key + ".damaged"), std::string(33, 'k'));
  EXPECT_TRUE(std::filesystem::is_directory(key + ".damaged2"));
}

TEST_F(KeychainTest, OneItemThatCannotBeUnderstoodHarmsOnlyItself) {
  ASSERT_EQ(SecItemAdd(query("first"), Data("1"), kUnlocked), errSecSuccess);
  ASSERT_EQ(SecItemAdd(query("second"), Data("2"), kUnlocked), errSecSuccess);
  replaceInFile("\"account\": \"", "\"account\": \"?");
  EXPECT_EQ(valueOf(query("first")), std::to_string(errSecItemNotFound));
  EXPECT_EQ(valueOf(query("second")), "2");
  EXPECT_EQ(SecItemAdd(query("first"), Data("3"), kUnlocked), errSecSuccess);
  EXPECT_EQ(valueOf(query("first")) + valueOf(query("second")), "32");
}

TEST_F(KeychainTest, NoKeyStaysInMemoryThatIsGivenBack) {
  std::filesystem::create_directories(folder());
  std::memset(secrets[0].data(), 'k', secrets[0].size());
  writeFile(folder() + "/sealing.key", std::string(secrets[0].data(), secrets[0].size()));
  SealingKey derived;
  ASSERT_TRUE(derived.assign({secrets[0].data(), secrets[0].size()}));
  ASSERT_TRUE(derived.derive("this device only\n" + std::string(32, 'a')));
  derived.view().copy(secrets[1].data(), secrets[1].size());
  looksForSecrets = true;
  for (const auto accessibility : {kUnlocked, kThisDevice}) {
    EXPECT_EQ(SecItemAdd(query("id"), Data("one"), accessibility), errSecSuccess);
    EXPECT_EQ(SecItemUpdate(query("id"), Data("two")), errSecSuccess);
    EXPECT_EQ(valueOf(query("id")), "two");
    EXPECT_EQ(SecItemDelete(query("id")), errSecSuccess);
  }
  EXPECT_EQ(secretsGivenBack, 0);
  std::string(secrets[1].data(), secrets[1].size()).shrink_to_fit();
  EXPECT_EQ(secretsGivenBack, 1) << "one that is given back is found";
  looksForSecrets = false;
}

TEST_F(KeychainTest, WhicheverCallFailsForWantOfDescriptorsNoItemIsMissingOrReplaced) {
  const auto id = query("id");
  // What it answers, and what is there where it has succeeded.
  const std::tuple<std::function<OSStatus()>, OSStatus, std::string> operations[] = {
      {[&] { return SecItemUpdate(id, Data("new")); }, errSecSuccess, "new"},
      {[&] { return SecItemAdd(id, Data("new"), kThisDevice); }, errSecDuplicateItem, "old"},
      {[&] { return SecItemCopyMatching(id, nullptr); }, errSecSuccess, "old"}};
  ASSERT_EQ(SecItemAdd(query("id"), Data("old"), kThisDevice), errSecSuccess);
  for (const auto& [operation, usual, after] : operations) {
    std::size_t call = 1;
    for (std::size_t faults = 1; faults > 0; ++call) {
      const FaultyFileCalls plan;
      plan->failCall(call, {.error = EMFILE});
      const OSStatus status = operation();
      plan->clear();
      faults = plan->faults();
      const std::string now = valueOf(query("id"));
      EXPECT_TRUE(status == usual || (faults > 0 && status == errSecIO)) << call << " " << status;
      EXPECT_TRUE(now == after || (faults > 0 && now == "old")) << call << " " << now;
      ASSERT_EQ(SecItemUpdate(query("id"), Data("old")), errSecSuccess);
    }
    EXPECT_GT(call, 6u) << "calls were looked at";
  }
}

TEST_F(KeychainTest, ThreadsAndProcessesLoseNothingOfEachOther) {
  const auto addTen = [](char owner) {
    for (char c = '0'; c <= '9'; ++c) {
      const std::string account{owner, c};
      if (SecItemAdd(query(account), Data(account), kThisDevice) != errSecSuccess) return 1;
    }
    return 0;
  };
  ChildProcess first([&] { return addTen('x'); });
  ChildProcess second([&] { return addTen('y'); });
  std::thread third([&] { EXPECT_EQ(addTen('t'), 0); });
  EXPECT_EQ(addTen('u'), 0);
  third.join();
  EXPECT_EQ(first.wait(), 0);
  EXPECT_EQ(second.wait(), 0);
  for (const char owner : {'x', 'y', 't', 'u'})
    for (char c = '0'; c <= '9'; ++c)
      EXPECT_EQ(valueOf(query({owner, c})), (std::string{owner, c}));
}

TEST(SealingTest, NeverUsesANonceTwiceAndRefusesLengthsThatDoNotFit) {
  SealingKey key;
  EXPECT_FALSE(key.assign(std::string(SealingKey::kLength - 1, 'k')));
  ASSERT_TRUE(key.makeRandom());
  const auto sealed = seal(key, "secret", "context");
  ASSERT_TRUE(sealed);
  EXPECT_NE(sealed->nonce, seal(key, "secret", "context")->nonce);
  EXPECT_EQ(unseal(SealingKey(), *sealed, "context"), std::nullopt);
  EXPECT_EQ(unseal(key, {std::string(12, 'n'), "short"}, "context"), std::nullopt);
  EXPECT_EQ(unseal(key, {sealed->nonce + "n", sealed->bytes}, "context"), std::nullopt);
  // The library counts in int, of which this length would become one.
  const std::string_view tooLong("c", (std::size_t{1} << 32) + 1);
  EXPECT_FALSE(seal(key, "secret", tooLong));
  EXPECT_EQ(unseal(key, *seal(key, "secret", "c"), tooLong), std::nullopt);
  const auto digest = hmacSHA256("key", "The quick brown fox jumps over the lazy dog");
  EXPECT_TRUE(digest.starts_with("\xf7\xbc\x83\xf4"));
}

}  // namespace
