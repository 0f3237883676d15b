#include "Analytics/Streaming/SourceModules/Entities/SkeldaTransaction.h"

#include <utility>

#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

constexpr std::string_view kReceiptKey = "sk.Receipt";
/// The one store that a host's transactions can come from.
constexpr std::string_view kUserStoreId = "1";

}  // namespace

/// One field: its key in dictionaries, its key in archives (empty: not archived), its member (null:
/// the receipt, the one that is no text), and which dictionaries know it.
struct SkeldaTransaction::Field {
  std::string_view key;
  std::string_view archiveKey;
  Text SkeldaTransaction::*member;
  bool isWritten = true;
  bool isReadFromUser = true;
};

constinit const SkeldaTransaction::Field SkeldaTransaction::kFields[] = {
    {"sk.TransactionIdentifier", "transactionId", &SkeldaTransaction::transactionId_},
    {"sk.OriginalTransactionIdentifier", "originalTransactionId",
     &SkeldaTransaction::originalTransactionId_, true, false},
    {"sk.ProductID", "productId", &SkeldaTransaction::productId_},
    {"sk.Quantity", "quanity", &SkeldaTransaction::quanity_},
    {"sk.Price", "price", &SkeldaTransaction::price_},
    {"sk.Currency", "currency", &SkeldaTransaction::currency_},
    {"sk.ProductName", "productName", &SkeldaTransaction::productName_},
    {kReceiptKey, "receiptData", nullptr},
    {"sk.TransactionState", "transactionState", &SkeldaTransaction::transactionState_, false},
    // Archives do without the store: those that exist hold none.
    {"sk.store.id", "", &SkeldaTransaction::storeId_, true, false},
    {"sk.country.code", "countryCode", &SkeldaTransaction::countryCode_},
};

platform::Value SkeldaTransaction::valueOf(const Field& field) const {
  if (field.member == nullptr) {
    return receiptData_ ? platform::Value(*receiptData_) : platform::Value();
  }
  const Text& text = this->*field.member;
  return text ? platform::Value(*text) : platform::Value();
}

bool SkeldaTransaction::set(const Field& field, const platform::Value& value) {
  if (field.member == nullptr) {
    if (value.data() == nullptr) return false;
    receiptData_ = *value.data();
    return true;
  }
  if (value.text() == nullptr) return false;
  this->*field.member = *value.text();
  return true;
}

std::shared_ptr<SkeldaTransaction> SkeldaTransaction::fromDictionary(
    const platform::Dictionary& dictionary, bool Field::*isRead) {
  auto transaction = platform::makeCounted<SkeldaTransaction>();
  for (const Field& field : kFields) {
    const platform::Value* value = field.*isRead ? dictionary.find(field.key) : nullptr;
    if (value == nullptr || value->isNull() || transaction->set(field, *value)) continue;
    // A host may well give its price as a number.
    transaction->set(field, value->description());
  }
  return transaction;
}

std::shared_ptr<SkeldaTransaction> SkeldaTransaction::transactionUsingDictionary(
    const platform::Dictionary& dictionary) {
  return fromDictionary(dictionary, &Field::isWritten);
}

std::shared_ptr<SkeldaTransaction> SkeldaTransaction::transactionUsingUserDictionary(
    const platform::Dictionary& dictionary) {
  auto transaction = fromDictionary(dictionary, &Field::isReadFromUser);
  transaction->storeId_.emplace(kUserStoreId);
  return transaction;
}

const platform::Array& SkeldaTransaction::transactionResultArrayInstance() {
  static platform::NeverDestroyed<platform::Array> names([] {
    return platform::Array{"Purchasing", "Success", "Failure", "Restored", "Deferred"};
  });
  return *names;
}

platform::Dictionary SkeldaTransaction::dictionaryRepresentation() const {
  platform::Dictionary dictionary;
  for (const Field& field : kFields) {
    platform::Value value = field.isWritten ? valueOf(field) : platform::Value();
    if (!value.isNull()) dictionary.append(std::string(field.key), std::move(value));
  }
  return dictionary;
}

platform::Dictionary SkeldaTransaction::encoded2TransactionDictionary() const {
  platform::Dictionary texts = dictionaryRepresentation();
  // The receipt is bytes: it is encoded once, where a text is encoded as its UTF-8.
  texts.erase(kReceiptKey);
  platform::Dictionary encoded = SkeldaUtil::dictionary2Base64UTF8Dictionary(texts);
  if (receiptData_ && !receiptData_->empty()) {
    encoded.append(platform::base64Encoded(kReceiptKey),
                   platform::base64Encoded(receiptData_->view()));
  }
  return encoded;
}

std::string SkeldaTransaction::description() const {
  using skelda::textOrNull;
  // Blanks and commas stand where those who read these lines expect them.
  return fmt::format(
      "{{ sk.CountryCode = {} , sk.Price = {} , sk.Quantity = {}, sk.ProductID = {} , "
      "sk.Currency = {} , sk.ProductName = {} ,sk.TransactionIdentifier = {} , "
      "sk.OriginalTransactionIdentifier = {}}}",
      textOrNull(countryCode_), textOrNull(price_), textOrNull(quanity_), textOrNull(productId_),
      textOrNull(currency_), textOrNull(productName_), textOrNull(transactionId_),
      textOrNull(originalTransactionId_));
}

platform::KeyedArchive SkeldaTransaction::archive() const {
  platform::Dictionary content;
  for (const Field& field : kFields) {
    platform::Value value = field.archiveKey.empty() ? platform::Value() : valueOf(field);
    if (!value.isNull()) content.append(std::string(field.archiveKey), std::move(value));
  }
  return {std::string(kClassName), std::move(content)};
}

std::shared_ptr<SkeldaTransaction> SkeldaTransaction::fromArchive(
    const platform::KeyedArchive& archive) {
  const platform::Dictionary* content = archive.root.dictionary();
  if (archive.className != kClassName || content == nullptr) return nullptr;
  auto transaction = platform::makeCounted<SkeldaTransaction>();
  for (const Field& field : kFields) {
    const platform::Value* value =
        field.archiveKey.empty() ? nullptr : content->find(field.archiveKey);
    if (value != nullptr && !transaction->set(field, *value)) return nullptr;
  }
  return transaction;
}
