// Does what its arguments say, one word after the other, and prints what each answered, "word:
// number". Behind "fork" words that begin with "child-" are the child's, which then stays, and the
// others the parent's. With EARLY in its environment it logs an event before main() begins, too,
// and one when all is over.

#include "Examples/MorningRun/QuietFolder.h"
#include "Platform/Dispatch/MainQueue.h"
#include "Platform/Dispatch/Queue.h"
#include "Skelda_Watch/Skelda_Watch.h"
#include "Tests/Support/Recorded.h"
#include "Tests/Support/TemporaryDirectory.h"

/// Whether this thread is in a call of the agent that may be refused what it asks the system for.
constinit thread_local bool isInside = false;

namespace {

using Number = unsigned long long;

struct Early {
  const bool isAsked = std::getenv("EARLY") != nullptr;
  const Number answer = isAsked ? SkeldaWatch::logWatchEvent("early") : 0;
  ~Early() {
    if (isAsked) SkeldaWatch::logWatchEvent("late", {{"when", "static destructor"}});
  }
} early;

struct Inside {
  Inside() { isInside = true; }
  ~Inside() { isInside = false; }
};

/// Calls the agent with values that were made before: what is allocated meanwhile is the agent's.
auto inside(auto call, auto... values) {
  const Inside now;
  return call(std::move(values)...);
}

Number fromThreads(unsigned threads, const auto& work) {
  if (threads == 1) return work(0);
  std::atomic<Number> sum{0};
  inThreads(threads, [&](unsigned thread) { sum += work(thread); });
  return sum;
}

/// As fast as it goes; how many were accepted.
Number burst(unsigned threads, Number each) {
  return fromThreads(threads, [each](Number thread) {
    Number accepted = 0;
    for (Number i = 0; i < each; ++i) {
      accepted += SkeldaWatch::logWatchEvent(
          "lap", {{"thread", thread}, {"i", i}, {"pace", "5:10"}, {"climb", 1.5}, {"on", true}});
    }
    return accepted;
  });
}

/// "FIRST,EVENTS,THREADS,RATE": logs events with these numbers, RATE a second and thread or as fast
/// as it goes where that is 0, and writes down which calls have returned and how, in a file that
/// outlives this process: the byte of TOLD at a number is 2 once its call has returned 1, 1 once it
/// has returned 0. What is committed meanwhile ends as blocks, as it does off line.
Number numbered(const char* how) {
  long first = 0, events = 0, rate = 0;
  unsigned threads = 0;
  const int told = ::open(std::getenv("TOLD"), O_WRONLY | O_CLOEXEC);
  const int read = std::sscanf(how, "%ld,%ld,%u,%ld", &first, &events, &threads, &rate);
  if (told < 0 || read != 4) std::abort();
  inside(SkeldaWatch::setServerURL, SkeldaValue("https://127.0.0.1:9/v1/skd.do"));
  const auto began = std::chrono::steady_clock::now();
  return fromThreads(threads, [=](unsigned thread) {
    for (long i = thread; i < events; i += threads) {
      if (rate > 0) std::this_thread::sleep_until(began + i / threads * 1s / rate);
      SkeldaValue name = "numbered", parameters = {{"n", first + i}};
      const char answer = inside(SkeldaWatch::logWatchEvent, name, parameters) == 1 ? 2 : 1;
      if (::pwrite(told, &answer, 1, first + i) != 1) std::abort();
    }
    return Number{1};
  });
}

Number kibibytes(const std::string& field) {
  const std::string status = readFile("/proc/self/status");
  return std::stoull(status.substr(status.find(field + ":") + field.size() + 1));
}

Number answerTo(const std::string& word) {
  const auto number = [&word] { return std::stoull(word.substr(word.find('=') + 1)); };
  if (word == "event") return SkeldaWatch::logWatchEvent("event");
  if (word.starts_with("burst=")) return burst(4, number());
  if (word.starts_with("flood=")) return burst(1, number());
  if (word.starts_with("numbered=")) return numbered(word.c_str() + 9);
  if (word == "consent") return SkeldaConsent::updateConsentInformation({});
  if (word == "opt-out") return SkeldaCCPA::setDataSaleOptOut(true), 1;
  if (word == "delete") return inside(SkeldaCCPA::setDelete), 1;
  if (word == "property") {
    return inside(SkeldaUserProperties::setValue, SkeldaValue("said"), SkeldaValue("early")), 1;
  }
  if (word == "user") return SkeldaWatch::setUserID("ann"), 1;
  if (word.starts_with("stored=")) return SkeldaWatch::waitUntilStored(number() * 1s);
  if (word == "rest") return QuietFolder(std::getenv("XDG_DATA_HOME")).wait(300ms, 10s);
  if (word == "stored") return SkeldaWatch::waitUntilStored(60s);
  if (word == "each-stored") {
    return fromThreads(4, [](Number) {
      SkeldaWatch::logWatchEvent("waited for");
      return SkeldaWatch::waitUntilStored(20s);
    });
  }
  if (word == "early") return early.answer;
  if (word == "exit-late") return std::atexit([] { SkeldaWatch::logWatchEvent("late"); }) == 0;
  if (word == "for-ever") {
    for (int i = 0; i < 2; ++i) std::thread(burst, 1, ~0ULL).detach();
    return std::this_thread::sleep_for(20ms), 1;
  }
  if (word == "refused") return SkeldaWatch::account().refused.overTheBound;
  if (word.starts_with("Vm")) return kibibytes(word);
  if (word == "quick_exit") std::quick_exit(0);
  if (word == "_exit") ::_exit(0);
  if (word == "kill") ::kill(::getpid(), SIGKILL);
  std::abort();
}

void follow(const std::vector<std::string>& words) {
  bool isChild = false;
  for (const std::string& word : words) {
    if (word.starts_with("child-") != isChild) continue;
    std::string answer;
    if (word == "found") {
      for (const auto& finding : SkeldaWatch::status().findings) answer += finding.code + " ";
    } else if (word == "fork") {
      const auto child = ::fork();
      isChild = child == 0;
      if (isChild) continue;
      answer = std::to_string(child);
    } else if (word != "stay") {
      answer = std::to_string(answerTo(isChild ? word.substr(6) : word));
    }
    std::printf("%s: %s\n", word.c_str(), answer.c_str());
    std::fflush(stdout);
    if (word == "stay") ::pause();
  }
  if (isChild) ::pause();
}

}  // namespace

int main(int count, char** arguments) {
  std::vector<std::string> words(arguments + 1, arguments + count);
  if (words[0] != "on-main") return follow(words), 0;
  // On the main queue, which nobody serves meanwhile, as the first thing that the agent is asked.
  words.erase(words.begin());
  skelda::platform::Queue::main()->async([&words] {
    follow(words);
    skelda::platform::MainQueue::stop();
  });
  skelda::platform::MainQueue::run();
}
