#include <benchmark/benchmark.h>

#include <array>
#include <nlohmann/json.hpp>
#include <string>

#include "Platform/Foundation/JSONReader.h"
#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Foundation/TextCoding.h"
#include "Platform/Platform.h"

// The JSON of an event with ten keys, two of them objects of five base64 texts, written in the ways
// that there are: by the streaming writer, from a value, and through the library's document.

namespace {

struct Parameter {
  std::string key, value;
};

struct Event {
  std::string name = platform::base64Encoded("LapDone");
  std::string uuid = "8B2F6C3E-5D1A-4C0B-9F7E-2A6B1C3D4E5F";
  std::array<Parameter, 5> user, skelda;
  Event() {
    for (std::size_t i = 0; i < user.size(); ++i) {
      user[i] = {platform::base64Encoded("parameter " + std::to_string(i)),
                 platform::base64Encoded("value of it " + std::to_string(i * 1000))};
      skelda[i] = user[i];
    }
  }
};

void writeParameters(platform::JSONWriter& writer, std::string_view key,
                     const std::array<Parameter, 5>& parameters) {
  writer.key(key);
  writer.beginObject();
  for (const Parameter& parameter : parameters) {
    writer.key(parameter.key);
    writer.text(parameter.value);
  }
  writer.endObject();
}

std::string streamed(const Event& event) {
  std::string text;
  text.reserve(1024);
  platform::JSONWriter writer(text);
  writer.beginObject();
  writer.key("sk.event.id");
  writer.integer(42);
  writer.key("sk.event.name");
  writer.text(event.name);
  writer.key("sk.event.timestamp");
  writer.integer(1714566600123);
  writer.key("sk.event.type");
  writer.integer(1);
  writer.key("sk.timed.event.starting");
  writer.boolean(false);
  writer.key("sk.event.timed");
  writer.boolean(false);
  writeParameters(writer, "sk.event.skelda.parameters", event.skelda);
  writeParameters(writer, "sk.event.user.parameters", event.user);
  writer.key("sk.timed.event.duration");
  writer.integer(0);
  writer.key("sk.event.uuid");
  writer.text(event.uuid);
  writer.endObject();
  return text;
}

void BM_StreamedEvent(benchmark::State& state) {
  const Event event;
  for (auto _ : state) benchmark::DoNotOptimize(streamed(event));
}
BENCHMARK(BM_StreamedEvent);

void BM_EventFromValue(benchmark::State& state) {
  const auto value = platform::readJSON(streamed(Event()));
  for (auto _ : state) benchmark::DoNotOptimize(platform::jsonText(*value));
}
BENCHMARK(BM_EventFromValue);

nlohmann::ordered_json parameterDocument(const std::array<Parameter, 5>& parameters) {
  auto object = nlohmann::ordered_json::object();
  for (const Parameter& parameter : parameters) object[parameter.key] = parameter.value;
  return object;
}

std::string throughDocument(const Event& event) {
  nlohmann::ordered_json json;
  json["sk.event.id"] = 42;
  json["sk.event.name"] = event.name;
  json["sk.event.timestamp"] = 1714566600123;
  json["sk.event.type"] = 1;
  json["sk.timed.event.starting"] = false;
  json["sk.event.timed"] = false;
  json["sk.event.skelda.parameters"] = parameterDocument(event.skelda);
  json["sk.event.user.parameters"] = parameterDocument(event.user);
  json["sk.timed.event.duration"] = 0;
  json["sk.event.uuid"] = event.uuid;
  return json.dump();
}

/// The plain alternative: a document is built for every event and then written.
void BM_EventThroughDocument(benchmark::State& state) {
  const Event event;
  if (throughDocument(event) != streamed(event)) state.SkipWithError("the texts differ");
  for (auto _ : state) benchmark::DoNotOptimize(throughDocument(event));
}
BENCHMARK(BM_EventThroughDocument);

void BM_ReadEvent(benchmark::State& state) {
  const std::string text = streamed(Event());
  for (auto _ : state) benchmark::DoNotOptimize(platform::readJSON(text));
}
BENCHMARK(BM_ReadEvent);

void BM_ReadEventAsDocument(benchmark::State& state) {
  const std::string text = streamed(Event());
  for (auto _ : state) benchmark::DoNotOptimize(nlohmann::ordered_json::parse(text));
}
BENCHMARK(BM_ReadEventAsDocument);

void BM_Base64(benchmark::State& state) {
  const std::string bytes(static_cast<std::size_t>(state.range(0)), 'a');
  for (auto _ : state) benchmark::DoNotOptimize(platform::base64Encoded(bytes));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Base64)->Arg(12)->Arg(4096);

void BM_RealNumber(benchmark::State& state) {
  double number = 0.1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(platform::jsonText(number));
    number += 0.37;
  }
}
BENCHMARK(BM_RealNumber);

}  // namespace
