#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/KeyedArchive.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// A purchase, which rides inside a purchase event. A value: its copies carry all of its fields.
class SkeldaTransaction : public platform::Object {
 public:
  static constexpr std::string_view kClassName = "SkeldaTransaction";
  using Text = std::optional<std::string>;

  SkeldaTransaction() = default;
  /// From the ten keys that dictionaryRepresentation() writes. Where a value is not of the right
  /// kind, texts take its "%@" and the receipt stays nil.
  static std::shared_ptr<SkeldaTransaction> transactionUsingDictionary(
      const platform::Dictionary& dictionary);
  /// From what a host gives: without the original transaction id, and the store is "1" whatever the
  /// host says.
  static std::shared_ptr<SkeldaTransaction> transactionUsingUserDictionary(
      const platform::Dictionary& dictionary);

  std::string_view className() const noexcept override { return kClassName; }

  /// The fields that are not nil, the state excepted, under their keys.
  platform::Dictionary dictionaryRepresentation() const;
  /// The same with keys and values as base64; of the receipt, the base64 of its bytes. What encodes
  /// to nothing is left out.
  platform::Dictionary encoded2TransactionDictionary() const;
  std::string description() const;

  /// The fields under their own names, all but the store's, and back; null for an archive that
  /// holds no transaction.
  platform::KeyedArchive archive() const;
  static std::shared_ptr<SkeldaTransaction> fromArchive(const platform::KeyedArchive& archive);

  const Text& transactionId() const noexcept { return transactionId_; }
  const Text& originalTransactionId() const noexcept { return originalTransactionId_; }
  const Text& productId() const noexcept { return productId_; }
  const Text& quanity() const noexcept { return quanity_; }
  const Text& price() const noexcept { return price_; }
  const Text& currency() const noexcept { return currency_; }
  const Text& productName() const noexcept { return productName_; }
  const std::optional<platform::Data>& receiptData() const noexcept { return receiptData_; }
  const Text& transactionState() const noexcept { return transactionState_; }
  const Text& storeId() const noexcept { return storeId_; }
  const Text& countryCode() const noexcept { return countryCode_; }

  // -- Fixed by the system, and not called by the agent itself

  /// The names of the transaction states, by their numbers.
  static const platform::Array& transactionResultArrayInstance();
  void setTransactionId(Text text) { transactionId_ = std::move(text); }
  void setOriginalTransactionId(Text text) { originalTransactionId_ = std::move(text); }
  void setProductId(Text text) { productId_ = std::move(text); }
  void setQuanity(Text text) { quanity_ = std::move(text); }
  void setPrice(Text text) { price_ = std::move(text); }
  void setCurrency(Text text) { currency_ = std::move(text); }
  void setProductName(Text text) { productName_ = std::move(text); }
  void setReceiptData(std::optional<platform::Data> bytes) { receiptData_ = std::move(bytes); }
  void setTransactionState(Text text) { transactionState_ = std::move(text); }
  void setStoreId(Text text) { storeId_ = std::move(text); }
  void setCountryCode(Text text) { countryCode_ = std::move(text); }

 private:
  struct Field;
  static const Field kFields[];

  static std::shared_ptr<SkeldaTransaction> fromDictionary(const platform::Dictionary& dictionary,
                                                           bool Field::*isRead);
  platform::Value valueOf(const Field& field) const;
  /// False for a value that is not of the field's kind.
  bool set(const Field& field, const platform::Value& value);

  Text transactionId_;
  Text originalTransactionId_;
  Text productId_;
  // Spelled so in its key as well, by which archives know it.
  Text quanity_;
  Text price_;
  Text currency_;
  Text productName_;
  std::optional<platform::Data> receiptData_;
  Text transactionState_;
  Text storeId_;
  Text countryCode_;
};
