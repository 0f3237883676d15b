#include "Skelda_Watch/skelda_watch.h"

#include <pthread.h>

#include <new>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserProperties.h"
#include "Tests/Analytics/Watch/WatchHost.h"

namespace {
thread_local bool noMemory = false;
}

// Not inlined: the compiler would see the system's one in the place of the other of a pair.
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return noMemory ? nullptr : std::malloc(size);
}
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = operator new(size, std::nothrow);
  return memory ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

using Owned =
    std::unique_ptr<skelda_value, decltype([](auto* value) { skelda_value_free(value); })>;

TEST(SkeldaCFace, PutsOfAnotherKindAreRefusedAndChangeNothing) {
  const Owned dictionary(skelda_dictionary_new()), array(skelda_array_new());
  const std::tuple<skelda_value*, const char*, bool> cases[] = {
      {dictionary.get(), "k", true}, {dictionary.get(), nullptr, false},
      {array.get(), nullptr, true},  {array.get(), "k", false},
      {nullptr, nullptr, false},     {nullptr, "k", false}};
  for (const auto& [container, key, taken] : cases) {
    EXPECT_EQ(skelda_put_text(container, key, "t"), taken);
    EXPECT_EQ(skelda_put_integer(container, key, 1), taken);
    EXPECT_EQ(skelda_put_real(container, key, 1), taken);
    EXPECT_EQ(skelda_put_boolean(container, key, true), taken);
    EXPECT_EQ(skelda_put_date(container, key, 1), taken);
    EXPECT_EQ(skelda_put_value(container, key, array.get()), taken);
    EXPECT_FALSE(skelda_put_text(container, key, nullptr));
    EXPECT_FALSE(skelda_put_value(container, key, nullptr));
    noMemory = true;
    EXPECT_FALSE(skelda_put_text(container, key, "longer than what a text holds without memory"));
    EXPECT_EQ(skelda_dictionary_new(), nullptr);
    noMemory = false;
  }
  skelda_value_free(nullptr);
}

TEST(SkeldaCFace, TheAccountFillsWhatItsCallerKnowsOfAndNothingBehindIt) {
  skelda_account now;
  struct {
    skelda_account account;
    char later[64];
  } newer;
  EXPECT_FALSE(skelda_get_account(nullptr, sizeof now));
  EXPECT_FALSE(skelda_log_event("refused", nullptr));
  ASSERT_TRUE(skelda_get_account(&now, sizeof now));
  EXPECT_GT(now.refused_no_key, 0U);
  for (const std::size_t size : {std::size_t{0}, std::size_t{12}, sizeof now, sizeof newer}) {
    std::memset(&newer, 0x55, sizeof newer);
    EXPECT_TRUE(skelda_get_account(&newer.account, size));
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&newer);
    for (std::size_t at = 0; at < sizeof newer; ++at) {
      const unsigned byte = at < sizeof now ? reinterpret_cast<unsigned char*>(&now)[at] : 0U;
      ASSERT_EQ(bytes[at], at < size ? byte : 0x55U) << size << " " << at;
    }
  }
}

/// What is given is copied: it goes before anything is read on the agent's queues.
void sayEverything() {
  const Owned lap(skelda_dictionary_new()), list(skelda_array_new()), words(skelda_array_new());
  skelda_put_text(list.get(), nullptr, "tea");
  skelda_put_integer(list.get(), nullptr, -3);
  skelda_put_value(list.get(), nullptr, list.get());
  skelda_put_text(lap.get(), "pace", "other");
  skelda_put_text(lap.get(), "pace", "5:10");
  skelda_put_integer(lap.get(), "lap", INT64_MIN);
  skelda_put_real(lap.get(), "climb", 1.5);
  skelda_put_boolean(lap.get(), "on", true);
  skelda_put_date(lap.get(), "at", 1'000'000);
  skelda_put_value(lap.get(), "list", list.get());
  for (const char* word : {"a", "b"}) skelda_put_text(words.get(), nullptr, word);
  expect(skelda_log_event("Lap", lap.get()), "event");
  expect(skelda_start_timed_event("Climb", nullptr), "start");
  expect(skelda_end_timed_event("Climb", nullptr), "end");
  const Owned bought(skelda_dictionary_new());
  skelda_put_text(bought.get(), "sk.ProductID", "socks");
  expect(skelda_log_purchase("Socks", bought.get(), nullptr), "purchase");
  skelda_set_user_id("ann");
  skelda_set_user_id(nullptr);
  skelda_user_property_set("p", "1");
  skelda_user_property_set_values("p", words.get());
  skelda_user_property_add("p", "2");
  skelda_user_property_add_values("p", words.get());
  skelda_user_property_remove_value("p", "3");
  skelda_user_property_remove_values("p", words.get());
  skelda_user_property_remove("p");
  skelda_user_property_flag(SKELDA_PROPERTY_SUBSCRIBER);
  skelda_set_data_sale_opt_out(true);
  skelda_request_deletion();
}

void sayNothing() {
  const Owned array(skelda_array_new());
  expect(!skelda_log_event(nullptr, nullptr), "no name");
  expect(!skelda_start_timed_event("", nullptr), "an empty name");
  expect(!skelda_end_timed_event(nullptr, array.get()), "no name, and an array");
  expect(!skelda_log_purchase(nullptr, nullptr, nullptr), "no name");
  expect(!skelda_update_consent(false, array.get(), false), "consent that is an array");
  expect(!skelda_update_consent(true, nullptr, false), "in scope without a string");
  expect(skelda_update_consent(false, nullptr, false), "out of scope");
  skelda_set_server_url(nullptr);
  skelda_user_property_set(nullptr, nullptr);
  skelda_user_property_add(nullptr, nullptr);
  skelda_user_property_remove_value(nullptr, nullptr);
  skelda_user_property_set_values("p", nullptr);
  skelda_user_property_add_values("p", nullptr);
  skelda_user_property_remove_values("p", nullptr);
  skelda_user_property_remove(nullptr);
  skelda_user_property_flag(nullptr);
  noMemory = true;
  expect(!skelda_log_event("a name that is longer than a text without memory", nullptr), "memory");
  skelda_user_property_set("a name that is longer than a text without memory", nullptr);
  expect(skelda_status() == nullptr, "no memory for the status");
  noMemory = false;
  skelda_text_free(nullptr);
}

/// A thread that was cancelled gets out of the calls that it makes, and ends behind them.
void callCancelled() {
  pthread_t thread;
  const auto body = [](void* reached) -> void* {
    ::pthread_cancel(::pthread_self());
    skelda_log_event("cancelled", nullptr);
    skelda_wait_until_stored(100);
    skelda_flush_log(INT64_MAX);
    *static_cast<bool*>(reached) = true;
    ::pthread_testcancel();
    return nullptr;
  };
  bool reached = false;
  void* result = nullptr;
  expect(::pthread_create(&thread, nullptr, body, &reached) == 0, "a thread");
  ::pthread_join(thread, &result);
  expect(reached && result == PTHREAD_CANCELED, "cancelled behind the calls");
}

std::atomic<int> lines{0};
void countAndThrow(const char* line, std::size_t length, void* context) {
  expect(context == &lines && std::strlen(line) == length, "a line, with its length and context");
  expect(!skelda_log_event("from the sink", nullptr), "an event inside");
  expect(!skelda_update_consent(false, nullptr, false), "consent inside");
  skelda_user_property_flag("from the sink");
  skelda_request_deletion();
  ++lines;
  throw std::runtime_error("as a C++ host might");
}

// Events, their names and parameters in base64, the text of a date and of a list among them. The
// end of a timed one has an id of its own, as the frame catalogue says.
constexpr std::string_view kSaid =
    R"(1CUSTOM_EVENT TGFw{"cGFjZQ==":"NToxMA==","bGFw":"LTkyMjMzNzIwMzY4NTQ3NzU4MDg=",)"
    R"("Y2xpbWI=":"MS41","b24=":"MQ==","YXQ=":"MTk3MC0wMS0wMVQwMDowMDowMVo=",)"
    R"("bGlzdA==":"WyJ0ZWEiLC0zLFsidGVhIiwtM11d"})"
    "\n2CUSTOM_EVENT Q2xpbWI= start{}\n3CUSTOM_EVENT Q2xpbWI= end{}\n4PURCHASE_EVENT U29ja3M={}"
    "bought\n{\"sk.demo.userid\":\"ann\"}\nnobody\n"
    "1p[\"1\"]\n1p[\"a\",\"b\"]\n2p[\"2\"]\n2p[\"a\",\"b\"]\n3p[\"3\"]\n3p[\"a\",\"b\"]\n4p[]\n"
    "6Skelda.Subscriber[\"true\"]\n{\"sk.ccpa.optout\":true}\n{}\n"
    "5CUSTOM_EVENT Y2FuY2VsbGVk{}\n";

const Scenario fromC("from C", [] {
  const HostBundle host(kWatch);
  skelda_set_log_sink(countAndThrow, &lines);
  skelda_listen_for_phone(nullptr);
  expect(skelda_follow_network(), "the network");
  const auto recorder = recordSources();
  sayEverything();
  sayNothing();
  callCancelled();
  expect(lines > 1 && skelda_flush_log(INT64_MAX), "lines came");
  skelda_set_log_sink(nullptr, nullptr);
  const auto said = [&] {
    std::string text;
    for (const auto& message : recorder->messages()) {
      if (const auto* e = dynamic_cast<const SkeldaStreamEvent*>(message.get())) {
        expect(Date::now() - *e->timestamp() < 5min, "its own time");
        expect(e->duration() == 0, "no duration, as the frame catalogue says");
        text += std::to_string(e->eventId()) + *e->eventType() + " " + *e->eventName() +
                (e->timed() ? e->starting() ? " start" : " end" : "") +
                Value(e->parameters()).description() + (e->transaction() ? "bought" : "");
      } else if (const auto* p = dynamic_cast<const SkeldaStreamUserProperties*>(message.get())) {
        text += std::to_string(p->callType()) + *p->propertyName() +
                Value(p->propertyValues().value()).description();
      } else if (message->frameType() == 146 || message->frameType() >= 174) {
        const auto payload = message->payload();
        text += payload ? payload->string() : "nobody";
      } else {
        continue;
      }
      text += "\n";
    }
    return text;
  };
  expect(becomes([&] { return said() == kSaid; }), said().c_str());
  skelda_account account;
  const std::unique_ptr<char, void (*)(char*)> status(skelda_status(), skelda_text_free);
  const std::string_view told(status.get());
  expect(told.starts_with(R"({"bundle":"/Run.app/PlugIns/Watch.appex",)"), status.get());
  expect(told.find(R"("holdsUp":true,"findings":[{"code":")") != told.npos, status.get());
  expect(skelda_get_account(&account, sizeof account) && account.events.accepted == 5 &&
             account.refused_bad_name == 4 && account.refused_inside_log_sink > 0,
         "the account");
  return failures;
});

TEST(SkeldaCFace, SaysWhatTheClassesSayAndNothingThrownGetsThrough) {
  AgentHome home;
  Scenario::run("from C");
}

}  // namespace
