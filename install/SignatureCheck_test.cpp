// SPDX-License-Identifier: Apache-2.0
// Installations under each signature policy, of packages signed in the test
// with TestPki's keys: what each policy lets in, what it refuses and why,
// what is left afterwards, and what the registry keeps of it.
#include "install/SignatureCheck.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>

#include "base/Refusal.h"
#include "install/WidgetInstaller.h"
#include "install/WidgetUnInstaller.h"
#include "testing/CaptureStdout.h"
#include "testing/ScopedEnv.h"
#include "testing/SignedPackage.h"
#include "testing/TempDir.h"
#include "testing/TestPki.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

void replaceAll(std::string* text, const std::string& from,
                const std::string& to) {
  size_t at = text->find(from);
  ASSERT_NE(std::string::npos, at) << from;
  for (; at != std::string::npos; at = text->find(from, at + to.size()))
    text->replace(at, from.size(), to);
}

// How each package of the tests is prepared, and the rule that refuses it
// under "require" ("" for none).
struct Case {
  const char* name;
  const char* refusal;
  std::function<void(SignedPackage&, const TestPki&)> prepare;
};

const Case kCases[] = {
    {"author", "",
     [](SignedPackage& p, const TestPki& pki) {
       p.sign(pki.author, SignatureMaker::kAuthor);
     }},
    {"distributors", "",
     [](SignedPackage& p, const TestPki& pki) {
       p.sign(pki.author, SignatureMaker::kAuthor);
       p.sign(pki.distributor, SignatureMaker::kDistributor);
       p.sign(pki.distributor, SignatureMaker::kDistributor);
     }},
    {"changed", "digest-mismatch: index.html",
     [](SignedPackage& p, const TestPki& pki) {
       p.sign(pki.author, SignatureMaker::kAuthor);
       TempDir::writeFile(p.file("index.html"), "<!DOCTYPE html><p>not mine</p>\n");
     }},
    {"extra", "signature-file-not-referenced: js/extra.js",
     [](SignedPackage& p, const TestPki& pki) {
       p.sign(pki.author, SignatureMaker::kAuthor);
       TempDir::writeFile(p.file("js/extra.js"), "steal();\n");
     }},
    {"missing", "reference-to-missing-file: js/app.js",
     [](SignedPackage& p, const TestPki& pki) {
       p.sign(pki.author, SignatureMaker::kAuthor);
       ASSERT_EQ(0, unlink(p.file("js/app.js").c_str()));
     }},
    {"role", "wrong-role",
     [](SignedPackage& p, const TestPki& pki) {
       std::string text = p.templateFor(pki.author, SignatureMaker::kAuthor);
       replaceAll(&text, "#role-author", "#role-distributor");
       p.signTemplate(text, pki.author);
     }},
    {"sha1", "weak-algorithm",
     [](SignedPackage& p, const TestPki& pki) {
       p.sign(pki.author, SignatureMaker::kAuthor);
       std::string text = TempDir::readFile(p.file("author-signature.xml"));
       replaceAll(&text, "http://www.w3.org/2001/04/xmlenc#sha256",
                  "http://www.w3.org/2000/09/xmldsig#sha1");
       TempDir::writeFile(p.file("author-signature.xml"), text);
     }},
    {"expired", "expired-certificate",
     [](SignedPackage& p, const TestPki& pki) {
       p.sign(pki.expired, SignatureMaker::kAuthor);
     }},
    {"stranger", "untrusted-signer",
     [](SignedPackage& p, const TestPki& pki) {
       p.sign(pki.stranger, SignatureMaker::kAuthor);
     }},
    {"unsigned", "not-signed", [](SignedPackage&, const TestPki&) {}},
};

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

class SignatureCheckTest : public WidgetSandbox {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mkdir(anchors.c_str(), 0700));
    TempDir::writeFile(anchors + "/root.pem", pki.root);
    ASSERT_EQ(0, chmod((anchors + "/root.pem").c_str(), 0600));
    widgetengine_set_trust_anchors(anchors.c_str());
  }
  void TearDown() override {
    widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_DEFAULT);
    widgetengine_set_trust_anchors(nullptr);
  }

  // The package of a case, zipped, with padding more files of its own
  // (signed with the rest); its file:// URL.
  std::string packageOf(const Case& c, int padding = 0) {
    const std::string folder = dir.file(std::string("source-") + c.name +
                                        (padding ? "-" + std::to_string(padding) : ""));
    SignedPackage unpacked(folder);
    for (int i = 0; i < padding; ++i) {
      TempDir::writeFile(unpacked.file("page" + std::to_string(i) + ".html"),
                         "<!DOCTYPE html><p>" + std::to_string(i) + "</p>\n");
    }
    c.prepare(unpacked, pki);
    ZipBuilder zip;
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(folder)) {
      if (!entry.is_regular_file()) continue;
      zip.addFile(entry.path().lexically_relative(folder).generic_string(),
                  TempDir::readFile(entry.path().string()));
    }
    return "file://" + writePackage(std::string(c.name) + ".wgt", zip);
  }

  // Installs url as the delegate does, the thread's last refusal cleared
  // first; its status, with the outcome in *outcome.
  int install(const std::string& url, Outcome* outcome = nullptr,
              std::string* output = nullptr) {
    refusal::begin();
    return captured(output, [&] {
      WidgetInstaller installer(url);
      const int status = installer.run();
      if (outcome) *outcome = installer.outcome();
      return status;
    });
  }

  int remove(const std::string& name) {
    return captured(nullptr, [&] { return WidgetUnInstaller(name).run(); });
  }

  // What widgetengine_signature_info() says of name; null when nothing.
  nlohmann::json info(const std::string& name) {
    std::unique_ptr<char, decltype(&free)> text(
        widgetengine_signature_info(name.c_str()), &free);
    if (!text) return nlohmann::json();
    return nlohmann::json::parse(text.get());
  }

  int signatureTables() {
    return count(
        "SELECT COUNT(*) FROM sqlite_master WHERE name='widgetSignatures'");
  }

  const TestPki& pki = TestPki::get();
  const std::string anchors = dir.file("anchors");
};

TEST_F(SignatureCheckTest, OffInstallsEveryPackageAndKeepsNothingNew) {
  widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_OFF);
  for (const Case& c : kCases) {
    std::string output;
    EXPECT_EQ(0, install(packageOf(c), nullptr, &output)) << c.name << output;
    EXPECT_EQ(nlohmann::json({{"name", c.name}, {"checked", false}}),
              info(c.name))
        << c.name;
  }
  EXPECT_EQ(0, signatureTables());
}

TEST_F(SignatureCheckTest, ReportInstallsEveryPackageAndRecordsTheVerdict) {
  widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_REPORT);
  for (const Case& c : kCases) {
    std::string output;
    ASSERT_EQ(0, install(packageOf(c), nullptr, &output)) << c.name << output;
    const nlohmann::json record = info(c.name);
    ASSERT_TRUE(record.is_object()) << c.name;
    EXPECT_EQ(true, record["checked"]) << c.name;
    EXPECT_EQ("report", record["policy"]) << c.name;
    const bool valid = std::string(c.refusal).empty();
    EXPECT_EQ(valid, record["valid"]) << c.name << record.dump();
    EXPECT_EQ(std::string(c.name) != "unsigned", record["signed"]) << c.name;
    if (!valid) {
      EXPECT_FALSE(record["failures"].empty() && record["author"].is_object())
          << c.name << record.dump();
    }
  }
  EXPECT_EQ(1, signatureTables());
  EXPECT_EQ(10, count("SELECT COUNT(*) FROM widgetSignatures"));
}

TEST_F(SignatureCheckTest, ReportRecordsWhoSigned) {
  widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_REPORT);
  ASSERT_EQ(0, install(packageOf(kCases[1])));
  const nlohmann::json record = info("distributors");
  EXPECT_EQ(true, record["valid"]) << record.dump();
  EXPECT_EQ(pki.author.subject, record["author"]["subject"]);
  EXPECT_EQ(95u, record["author"]["fingerprint"].get<std::string>().size());
  EXPECT_EQ(pki.rootSubject, record["author"]["anchor"]);
  ASSERT_EQ(2u, record["distributors"].size());
  EXPECT_EQ("signature2.xml", record["distributors"][0]["file"]);
  EXPECT_EQ("signature1.xml", record["distributors"][1]["file"]);
  EXPECT_EQ(pki.distributor.subject, record["distributors"][0]["subject"]);
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM widgetSignatures WHERE valid=1 AND "
                     "authorSubject='" + pki.author.subject + "'"));
}

TEST_F(SignatureCheckTest, RequireRefusesWhatDoesNotHoldAndLeavesNothing) {
  widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_REQUIRE);
  for (const Case& c : kCases) {
    const std::string refusal = c.refusal;
    if (refusal.empty()) continue;
    Outcome outcome;
    std::string output;
    EXPECT_EQ(6, install(packageOf(c), &outcome, &output)) << c.name;
    EXPECT_EQ(WIDGETENGINE_REFUSAL_SIGNATURE, outcome.code()) << c.name;
    EXPECT_TRUE(startsWith(outcome.reason(), refusal))
        << c.name << ": " << outcome.reason();
    EXPECT_NE(std::string::npos,
              output.find(": its signatures do not hold: " + outcome.reason() +
                          "\nError while extracting\n"))
        << c.name << output;
    EXPECT_TRUE(nothingLeft()) << c.name;
    EXPECT_EQ(0, count("SELECT COUNT(*) FROM Widgets")) << c.name;
    EXPECT_EQ(0, count("SELECT COUNT(*) FROM widgetFiles")) << c.name;
    EXPECT_TRUE(info(c.name).is_null()) << c.name;
  }
  EXPECT_EQ(0, signatureTables());
}

TEST_F(SignatureCheckTest, RequireInstallsValidlySignedPackages) {
  widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_REQUIRE);
  for (const Case& c : kCases) {
    if (*c.refusal) continue;
    EXPECT_EQ(0, install(packageOf(c))) << c.name;
    EXPECT_EQ("require", info(c.name)["policy"]) << c.name;
    EXPECT_EQ(true, info(c.name)["valid"]) << c.name;
  }
}

TEST_F(SignatureCheckTest, RequireWithoutTheAnchorRefusesTheSigner) {
  widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_REQUIRE);
  const std::string empty = dir.file("no-anchors");
  ASSERT_EQ(0, mkdir(empty.c_str(), 0700));
  widgetengine_set_trust_anchors(empty.c_str());
  Outcome outcome;
  EXPECT_EQ(6, install(packageOf(kCases[0]), &outcome));
  EXPECT_TRUE(startsWith(outcome.reason(), "untrusted-signer")) << outcome.reason();
  EXPECT_TRUE(nothingLeft());
}

TEST_F(SignatureCheckTest, TheVariableChoosesUnlessTheHostDid) {
  ScopedEnv policy("WIDGETENGINE_SIGNATURES", "require");
  const std::string url = packageOf(kCases[9]);
  Outcome outcome;
  EXPECT_EQ(6, install(url, &outcome));
  EXPECT_TRUE(startsWith(outcome.reason(), "not-signed")) << outcome.reason();
  widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_OFF);
  EXPECT_EQ(0, install(url));
  EXPECT_EQ(0, signatureTables());
}

TEST_F(SignatureCheckTest, AnUnknownPolicyIsRefusedByTheCall) {
  EXPECT_EQ(-1, widgetengine_set_signature_policy(4));
  EXPECT_EQ(-1, widgetengine_set_signature_policy(-1));
  EXPECT_EQ(settings::kSignaturesOff, SignatureCheck::policy());
}

TEST_F(SignatureCheckTest, RemovalTakesTheRecordAlongAndAReusedIdStartsClean) {
  widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_REPORT);
  ASSERT_EQ(0, install(packageOf(kCases[0])));
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM widgetSignatures"));
  EXPECT_EQ(1, remove("author"));
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM widgetSignatures"));
  EXPECT_TRUE(info("author").is_null());

  // Installed again without a policy, under the same id: nothing of the
  // first installation's record shows through.
  widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_OFF);
  ASSERT_EQ(0, install(packageOf(kCases[9])));
  EXPECT_EQ(false, info("unsigned")["checked"]);
}

// A package of enough entries is written on two threads, its signature
// documents first and checked while the other files are written; on one
// thread they are checked after. Either way, under each policy, the same
// lines, status, refusal and record.
TEST_F(SignatureCheckTest, OneThreadOrTwoGiveTheSameAnswers) {
  for (const Case& c : kCases) {
    const std::string url = packageOf(c, 24);
    for (int policy : {WIDGETENGINE_SIGNATURES_REPORT, WIDGETENGINE_SIGNATURES_REQUIRE}) {
      widgetengine_set_signature_policy(policy);
      int status[2];
      Outcome outcome[2];
      std::string output[2];
      nlohmann::json record[2];
      for (int threads = 1; threads <= 2; ++threads) {
        ScopedEnv unpacking("WIDGETENGINE_UNPACK_THREADS", std::to_string(threads));
        const int at = threads - 1;
        status[at] = install(url, &outcome[at], &output[at]);
        // The downloaded file's name is drawn afresh each time.
        output[at] = std::regex_replace(output[at], std::regex("/file[A-Za-z0-9]{6}\n"),
                                        "/fileXXXXXX\n");
        record[at] = info(c.name);
        if (status[at] == 0) {
          EXPECT_EQ(1, remove(c.name)) << c.name;
        }
        EXPECT_TRUE(nothingLeft()) << c.name;
      }
      EXPECT_EQ(status[0], status[1]) << c.name;
      EXPECT_EQ(outcome[0].code(), outcome[1].code()) << c.name;
      EXPECT_EQ(outcome[0].reason(), outcome[1].reason()) << c.name;
      EXPECT_EQ(output[0], output[1]) << c.name;
      EXPECT_EQ(record[0], record[1]) << c.name;
      const bool refused = policy == WIDGETENGINE_SIGNATURES_REQUIRE && *c.refusal;
      EXPECT_EQ(refused ? 6 : 0, status[1]) << c.name << output[1];
      if (refused) {
        EXPECT_TRUE(startsWith(outcome[1].reason(), c.refusal))
            << c.name << ": " << outcome[1].reason();
      }
    }
  }
}

}  // namespace
