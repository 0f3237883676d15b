#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppStateSource.h"

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamAppState.h"

void SkeldaAppStateSource::onqueue_reportFactsOf(SkeldaAppStateDataProvider& provider) {
  SKELDA_ON_QUEUE();
  const auto facts = provider.appStateData();
  if (!facts) return;
  onqueue_streamMessage(
      SkeldaStreamAppState::appState(facts->currentState(), facts->previousState()));
}
