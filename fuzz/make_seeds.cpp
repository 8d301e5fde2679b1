// SPDX-License-Identifier: Apache-2.0
// Writes the fuzz targets' seed corpora into OUT/<target>/: packages built
// the way the tests build them, configuration documents, language strings
// and a real registry file. The corpus of packages written elsewhere is
// added by fuzz/seeds.sh.
//
//   make_seeds OUT
#include <sys/stat.h>
#include <unistd.h>

#include <widgetengine/WidgetEngineDelegate.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "fuzz/SamplePackage.h"
#include "signature/SignatureMaker.h"
#include "testing/TestPki.h"
#include "testing/ZipBuilder.h"

namespace {

const char kConfigHead[] = "<widget xmlns=\"http://www.w3.org/ns/widgets\"";

std::string config(const std::string& body, const std::string& attributes = "") {
  return std::string(kConfigHead) + attributes + ">" + body + "</widget>";
}

void write(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out << bytes;
}

std::string read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

// Seeds of the signature target, whose first byte says what the rest is
// (see signature_fuzzer.cpp): documents signed over the target's sample
// package, templates, variants the rules refuse, and reference URIs. This
// process's test authority is not the target's, so the signed documents
// hold but for their signer's chain.
bool writeSignatureSeeds(const std::string& out, const std::string& work) {
  const std::string package = work + "/signed";
  if (!samplePackage::write(package)) return false;
  const TestPki& pki = TestPki::get();
  SignatureMaker author, distributor;
  std::string reason, written;
  if (!author.setSigner(pki.author.key, pki.author.chain, &reason) ||
      !distributor.setSigner(pki.distributor.key, pki.distributor.chain, &reason)) {
    fprintf(stderr, "make_seeds: %s\n", reason.c_str());
    return false;
  }
  const std::set<std::string> files = {"config.xml", "index.html", "js/app.js"};
  std::vector<std::string> seeds;
  for (bool exclusive : {false, true}) {
    author.setExclusiveCanonicalization(exclusive);
    distributor.setExclusiveCanonicalization(exclusive);
    // The target fills templates in with an EC key: the method must be its.
    const std::string text = distributor.makeTemplate(files, SignatureMaker::kAuthor);
    seeds.push_back("t" + text);
    seeds.push_back("t" + replaced(text, "role-author", "role-distributor"));
    seeds.push_back("t" + replaced(text, "js/app.js", "js%2Fapp.js"));
    if (!author.sign(package, SignatureMaker::kAuthor, &written, &reason)) {
      fprintf(stderr, "make_seeds: %s\n", reason.c_str());
      return false;
    }
    const std::string document = read(package + "/" + written);
    // The entity's declaration must come before the root, after no other.
    const size_t root = document.find("<Signature");
    seeds.push_back(document);
    // libxmlsec makes no SHA-1 digests, so this one is a made document's.
    seeds.push_back(replaced(document, "http://www.w3.org/2001/04/xmlenc#sha256",
                             "http://www.w3.org/2000/09/xmldsig#sha1"));
    seeds.push_back("<?xml version=\"1.0\"?><!DOCTYPE Signature [<!ENTITY x SYSTEM "
                    "\"file:///etc/passwd\">]>" +
                    replaced(document.substr(root), "</SignatureValue>",
                             "&x;</SignatureValue>"));
  }
  seeds.push_back("t" + distributor.makeTemplate(files, SignatureMaker::kDistributor));
  if (!distributor.sign(package, SignatureMaker::kDistributor, &written, &reason)) {
    fprintf(stderr, "make_seeds: %s\n", reason.c_str());
    return false;
  }
  seeds.push_back("d" + read(package + "/" + written));
  for (const char* uri : {"index.html", "js%2Fapp.js", "js/app.js", "a%20b/c%25d.txt",
                          "%2e%2e/x", "./index.html", "/etc/passwd", "http://x/y",
                          "#prop", "js//app.js", "%00", "%C3%A9t%C3%A9.html"}) {
    seeds.push_back(std::string("u") + uri);
  }
  for (size_t i = 0; i < seeds.size(); ++i)
    write(out + "/signature/seed" + std::to_string(i), seeds[i]);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string out = argv[1];
  for (const char* target : {"", "/config_parser", "/downloader", "/extractor",
                             "/install", "/locales", "/registry", "/signature",
                             "/update_description"}) {
    mkdir((out + target).c_str(), 0755);
  }

  const std::vector<std::string> descriptions = {
      "<update-info xmlns=\"http://www.w3.org/ns/widgets\" version=\"1.1\" "
      "src=\"clock-1.1.wgt\"/>",
      "<?xml version=\"1.0\"?>\n<update-info xmlns=\"http://www.w3.org/ns/widgets\" "
      "version=\" 2.0 beta \" src=\"https://cdn.test/clock.wgt\" xml:lang=\"de\">"
      "<details>Schneller.</details><details xml:lang=\"fr\">Plus <b>vite</b>."
      "</details><details xml:lang=\"fr-CA\">Plus vite.</details></update-info>",
      "<update-info xmlns=\"http://www.w3.org/ns/widgets\" version=\"3\" "
      "src=\"../../p/c.wgt?x=1#f\"><other/></update-info>",
      "<?xml version=\"1.0\"?><!DOCTYPE u [<!ENTITY e \"x\">]><update-info "
      "xmlns=\"http://www.w3.org/ns/widgets\" version=\"&e;\" src=\"a.wgt\">"
      "<details>&e;</details></update-info>",
  };
  for (size_t i = 0; i < descriptions.size(); ++i)
    write(out + "/update_description/seed" + std::to_string(i), descriptions[i]);

  const std::vector<std::string> configs = {
      config("<name>Clock</name>"),
      config("<name>Clock</name><name xml:lang=\"fr\">Horloge</name>"
             "<description>d</description><license href=\"http://l\">L</license>"
             "<author href=\"http://a\" email=\"a@b\">A</author>"
             "<icon src=\"icon.png\" width=\"16\" height=\"16\"/>"
             "<content src=\"main.html\" type=\"text/html\" encoding=\"UTF-8\"/>"
             "<feature name=\"http://f\" required=\"false\"><param name=\"p\" value=\"v\"/></feature>"
             "<preference name=\"k\" value=\"v\" readonly=\"true\"/>",
             " id=\"http://w/clock\" version=\"1.0\" width=\"200\" height=\"100\" viewmodes=\"floating\""),
      config("<name short=\"C\">Clock</name><x:e xmlns:x=\"urn:x\"/>"),
      "<?xml version=\"1.0\"?><!DOCTYPE w [<!ENTITY e \"x\">]>" + config("<name>&e;</name>"),
  };
  for (size_t i = 0; i < configs.size(); ++i) {
    write(out + "/config_parser/seed" + std::to_string(i) + ".xml", configs[i]);
  }

  std::vector<ZipBuilder> packages(6);
  packages[0].addFile("config.xml", configs[0]).addFile("index.html", "<p>x</p>");
  packages[1]
      .addFile("config.xml", configs[1])
      .addFile("main.html", "<p>x</p>")
      .addFile("icon.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16))
      .addFile("locales/fr/main.html", "<p>fr</p>")
      .addFolder("img/");
  packages[2]
      .addFile("config.xml", configs[0], ZipBuilder::kStored)
      .addFile("index.html", std::string(5000, 'x'), 9);
  packages[3].addFile("index.html", "<p>no config</p>");
  packages[4].addFile("config.xml", configs[2]).addFile("index.svg", "<svg/>");
  packages[5].addFile("config.xml", configs[0]).addFile("a/b/c/index.htm", "x");
  for (size_t i = 0; i < packages.size(); ++i) {
    for (const char* target : {"/extractor/", "/install/"}) {
      packages[i].write(out + target + "seed" + std::to_string(i) + ".wgt");
    }
  }

  // Whole HTTP answers as a server would send them, one of them with a
  // package as its body.
  const std::string zip = [&] {
    const std::string path = out + "/extractor/seed0.wgt";
    return read(path);
  }();
  const std::vector<std::string> answers = {
      "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(zip.size()) +
          "\r\nContent-Type: application/widget\r\n\r\n" + zip,
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
      "5\r\nhello\r\n3;x=y\r\nabc\r\n0\r\nTrailer: t\r\n\r\n",
      "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: 4\r\n\r\nabcd",
      "HTTP/1.1 302 Found\r\nLocation: /elsewhere\r\nContent-Length: 5\r\n\r\nmoved",
      "HTTP/1.0 404 Not Found\r\n\r\n<html>missing</html>",
      "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok",
      "HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\nshort",
      "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\nabcd",
  };
  for (size_t i = 0; i < answers.size(); ++i) {
    write(out + "/downloader/seed" + std::to_string(i), answers[i]);
  }

  const std::vector<std::string> languages = {
      std::string("file:///x/index.html\0fr-FR,fr;q=0.8,en", 37),
      std::string("index.html\0de-DE,*,fr-ca", 25),
      std::string("locales/fr/index.html\0en-*-us, i-klingon,zh-min", 48),
      std::string("style.css\0fr-ca", 15)};
  for (size_t i = 0; i < languages.size(); ++i) {
    write(out + "/locales/seed" + std::to_string(i), languages[i]);
  }

  // A registry with two widgets, made by the engine itself.
  char pattern[] = "/tmp/widgetengine-seeds-XXXXXX";
  const std::string work = mkdtemp(pattern);
  const std::string root = work + "/w/";
  const std::string conf = work + "/c/";
  mkdir(root.c_str(), 0755);
  mkdir((root + "tmp").c_str(), 0755);
  mkdir(conf.c_str(), 0755);
  setenv("WIDGET_PATH", root.c_str(), 1);
  setenv("YRA_DATA_PATH", conf.c_str(), 1);
  {
    RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
    for (int i : {0, 1}) {
      const std::string package = work + "/w" + std::to_string(i) + ".wgt";
      packages[i].write(package);
      std::free(engine->receiveWidget(("file://" + package).c_str(), nullptr));
    }
  }
  write(out + "/registry/seed0.db", read(conf + "widget.db"));
  const bool signatures = writeSignatureSeeds(out, work);
  std::string command = "rm -rf '" + work + "'";
  return std::system(command.c_str()) == 0 && signatures ? 0 : 1;
}
