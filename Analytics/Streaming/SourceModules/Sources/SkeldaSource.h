#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaFrameSource.h"
#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamComponentBase.h"
#include "Analytics/Streaming/Data Providers/ISkeldaDataProviderObserver.h"
#include "Analytics/Streaming/Data Providers/SkeldaDataProvider.h"

/// What the sources have in common: a stage with a queue of its own that is found under Protocol
/// and, when the manager starts it, runs onqueue_startup() there. Self is the concrete class; it
/// names itself in kClassName and befriends this base, which makes it.
template <class Self, class Protocol>
class SkeldaSource : public SkeldaActorStreamComponentBase, public Protocol {
 public:
  static constexpr std::string_view kKey = Protocol::kProtocolName;
  /// The class of the data provider that it observes; empty for none.
  static constexpr std::string_view kProvider{};

  /// A new source each time; the manager's registry keeps the one in use.
  static std::shared_ptr<Self> getSourceInstance() { return SkeldaActor::made(new Self()); }
  std::string_view className() const noexcept override { return Self::kClassName; }

  void startup() override { this->template post<&SkeldaSource::onqueue_startup>(); }

 protected:
  SkeldaSource() : SkeldaActorStreamComponentBase(std::string(Self::kClassName)) {}
  /// Most sources have nothing to do when they are started.
  virtual void onqueue_startup() {}
};

/// A source that reports the facts of one data provider each time that provider has news. Updates
/// of any other provider are ignored.
template <class Self, class Protocol, class Provider>
class SkeldaProviderFedSource : public SkeldaSource<Self, Protocol>,
                                public ISkeldaDataProviderObserver {
 public:
  static constexpr std::string_view kProvider = Provider::kClassName;

  void dataProviderDidUpdate(std::shared_ptr<SkeldaDataProvider> provider) override {
    this->template post<&SkeldaProviderFedSource::onqueue_dataProviderDidUpdate>(
        std::move(provider));
  }

 protected:
  void onqueue_dataProviderDidUpdate(const std::shared_ptr<SkeldaDataProvider>& provider) {
    SKELDA_ON_QUEUE();
    if (auto expected = std::dynamic_pointer_cast<Provider>(provider))
      onqueue_reportFactsOf(*expected);
  }
  virtual void onqueue_reportFactsOf(Provider& provider) = 0;
};
