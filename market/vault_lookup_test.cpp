// The vault lookup: when it asks the host's database, what it sends, how it
// fetches the entry again and which answers it logs.
#include <rapidjson/document.h>

#include "testing/manager_fixture.h"

namespace tsm {
namespace {

const wchar_t kProduct[] = L"QX.F.CN";
const wchar_t kSecurity[] = L"QX.F.CN.IF2612";

class VaultLookupTest : public ManagerTest {
 protected:
  // Starts with the security info record's "VAULT" set to `mode`.
  void StartWithVaultMode(int32_t mode) {
    host_.Write(host_.Topic(L"Security.Info"), {{L"VAULT", Variant::I4(mode)}});
    Start();
    host_.ClearEvents();
  }

  void HostAddsEntryOnRequest(const std::wstring& field, const std::wstring& value) {
    HostAddsEntryOnVaultRequest(kProduct, field, value);
  }

  void Lookup(CBaseData*& entry, rapidjson::Document* document) {
    manager_->GetInfoFromVaultDb(kProduct, kSecurity, entry, document);
  }

  // Neither a missing nor a present entry makes a request; the entry is kept.
  void ExpectNoRequestWithOrWithoutEntry(rapidjson::Document& document) {
    CBaseData* entry = nullptr;
    Lookup(entry, &document);
    EXPECT_EQ(entry, nullptr);
    CBaseData* present = Bound({{L"x", Variant::I4(1)}});
    entry = present;
    Lookup(entry, &document);
    EXPECT_EQ(entry, present);
    EXPECT_TRUE(host_.Events().empty());
  }
};

TEST_F(VaultLookupTest, VaultModeZeroSendsNoRequestWhateverTheEntry) {
  StartWithVaultMode(0);
  rapidjson::Document document;
  ExpectNoRequestWithOrWithoutEntry(document);
  EXPECT_TRUE(document.IsNull());
}

TEST_F(VaultLookupTest, VaultModeTwoSendsNoRequestWhateverTheEntry) {
  StartWithVaultMode(2);
  rapidjson::Document document;
  ExpectNoRequestWithOrWithoutEntry(document);
}

TEST_F(VaultLookupTest, PresentEntryOnlyLogsNotNullAndIsKept) {
  StartWithVaultMode(1);
  rapidjson::Document document;
  CBaseData* present = Bound({{L"x", Variant::I4(1)}});
  CBaseData* entry = present;
  Lookup(entry, &document);
  EXPECT_EQ(entry, present);
  EXPECT_TRUE(Sent(L"MARZIPAN.REQUEST").empty());
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"GetInfoFromVaultDb not null:QX.F.CN")}));
}

TEST_F(VaultLookupTest, MissingEntrySendsOneRequestWithOneAndSixtyFour) {
  StartWithVaultMode(1);
  rapidjson::Document document;
  CBaseData* entry = nullptr;
  Lookup(entry, &document);
  const auto requests = Sent(L"MARZIPAN.REQUEST");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].p1, 1);
  EXPECT_EQ(requests[0].p2, 64);
  EXPECT_EQ(requests[0].text, kSecurity);
  ASSERT_EQ(requests[0].data.type(), VarType::I8);
  EXPECT_EQ(requests[0].data.i8(), static_cast<int64_t>(reinterpret_cast<intptr_t>(&document)));
  delete entry;
}

TEST_F(VaultLookupTest, EntryAfterwardsIsWhatTheSecurityInfoNowHolds) {
  StartWithVaultMode(1);
  HostAddsEntryOnRequest(kSecurity, L"{\"OpenCloseTime\":\"09:30~11:30\"}");
  rapidjson::Document document;
  CBaseData* entry = nullptr;
  Lookup(entry, &document);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->GetJsonString(kSecurity, L"OpenCloseTime"), CString(L"09:30~11:30"));
  delete entry;
}

TEST_F(VaultLookupTest, EntryStaysNullWhenTheSecurityInfoHasNone) {
  StartWithVaultMode(1);
  rapidjson::Document document;
  CBaseData* entry = nullptr;
  Lookup(entry, &document);
  EXPECT_EQ(entry, nullptr);
}

TEST_F(VaultLookupTest, HostFillsTheCallersDocumentDuringTheRequest) {
  StartWithVaultMode(1);
  host_.SetVaultAnswer("{\"QX.F.CN.IF2612\":{\"OpenCloseTime\":\"09:30~11:30\"}}", L"TRUE");
  rapidjson::Document document;
  CBaseData* entry = nullptr;
  Lookup(entry, &document);
  ASSERT_TRUE(document.IsObject());
  EXPECT_TRUE(document.HasMember("QX.F.CN.IF2612"));
}

TEST_F(VaultLookupTest, AnswerTrueLogsTheFalseLine) {
  StartWithVaultMode(1);
  host_.SetVaultAnswer("{}", L"TRUE");
  rapidjson::Document document;
  CBaseData* entry = nullptr;
  Lookup(entry, &document);
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"GetInfoFromVaultDb:false")}));
}

TEST_F(VaultLookupTest, AnswerOfOtherTextLogsNothing) {
  StartWithVaultMode(1);
  for (const wchar_t* answer : {L"FALSE", L"true", L""}) {
    host_.SetVaultAnswer("{}", answer);
    rapidjson::Document document;
    CBaseData* entry = nullptr;
    Lookup(entry, &document);
  }
  EXPECT_EQ(Sent(L"MARZIPAN.REQUEST").size(), 3u);
  EXPECT_TRUE(Logs().empty());
}

TEST_F(VaultLookupTest, AnswerThatIsNotTextLogsTheFalseLine) {
  StartWithVaultMode(1);
  host_.on_send = [](const std::wstring& topic, int32_t, int32_t, const std::wstring&, Variant*, Variant* result) {
    if (topic == L"MARZIPAN.REQUEST") *result = Variant::I4(1);
  };
  rapidjson::Document document;
  CBaseData* entry = nullptr;
  Lookup(entry, &document);
  host_.on_send = [](const std::wstring& topic, int32_t, int32_t, const std::wstring&, Variant*, Variant* result) {
    if (topic == L"MARZIPAN.REQUEST") *result = Variant();
  };
  Lookup(entry, &document);
  EXPECT_EQ(Logs(),
            (std::vector<std::wstring>{Log(L"GetInfoFromVaultDb:false"), Log(L"GetInfoFromVaultDb:false")}));
}

TEST_F(VaultLookupTest, WithoutAHostSinkTheDocumentStaysEmptyAndTheEntryIsFetchedAgain) {
  IBaseData* stored = Record(L"entry", {{kSecurity, Variant::Text(L"{\"OpenCloseTime\":\"09:30~11:30\"}")}});
  TsmSetChild(host_.Topic(L"Security.Info"), kProduct, stored);
  StartWithVaultMode(1);
  host_.SetVaultAnswer("{\"QX.F.CN.IF2612\":{}}", L"TRUE");
  ASSERT_EQ(manager_->Unadvise(sink_cookie_), kS_OK);
  rapidjson::Document document;
  CBaseData* entry = nullptr;
  Lookup(entry, &document);
  ASSERT_EQ(manager_->Advise(&host_, &sink_cookie_), kS_OK);
  EXPECT_TRUE(document.IsNull());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->GetJsonString(kSecurity, L"OpenCloseTime"), CString(L"09:30~11:30"));
  EXPECT_TRUE(host_.Events().empty());
  delete entry;
}

}  // namespace
}  // namespace tsm
