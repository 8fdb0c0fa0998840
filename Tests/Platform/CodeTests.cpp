#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Code.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/Linux/DERReader.hpp"
#include "KlarboxKit/Platform/Linux/SignatureShape.hpp"

#include "Tests/Platform/SampleProgram.hpp"
#include "Tests/Support/Programs.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <unistd.h>

#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

using testing::HasSubstr;
using Tag = DERReader::Tag;

constexpr const char *good = "app.klarbox.Klarbox of K7L4R9B0X2";

/// Shell functions that make certificates and signatures. What they read of the environment has a
/// word before the call: `days=-1 leaf …`.
constexpr const char *functions = R"(
set -e; export LC_ALL=C; umask 022
ec='ec -pkeyopt ec_paramgen_curve:P-256'
ca='basicConstraints=critical,CA:TRUE'
signs='keyUsage=critical,digitalSignature'
code='extendedKeyUsage=codeSigning'
mail='extendedKeyUsage=emailProtection'
# authority NAME [EXTENSION]: one that nobody stands above
authority() {
    openssl req -x509 -newkey $ec -nodes -days 2 -keyout $1.key -out $1.pem -subj /CN=$1 \
        -addext $ca -addext keyUsage=critical,keyCertSign ${2:+-addext $2}
}
# issue NAME AUTHORITY EXTENSION…
issue() {
    name=$1 by=$2; shift 2
    printf '%s\n' "$@" >$name.ext
    openssl req -newkey ${key:-$ec} -nodes -keyout $name.key -out $name.csr \
        -subj /OU=${team:-K7L4R9B0X2}/CN=$name
    openssl x509 -req -in $name.csr -CA $by.pem -CAkey $by.key -days ${days:-2} -extfile $name.ext \
        -set_serial 0x$(openssl rand -hex 8) ${digest:--sha256} -out $name.pem
}
# sign SIGNER OPTION…: writes program.cms
sign() {
    name=$1; shift
    openssl cms -sign -binary -md ${md:-sha256} -nosmimecap -signer $name.pem -inkey $name.key \
        -in program -outform DER -out program.cms "$@"
}
# leaf EXTENSION…: signs with a new certificate
leaf() { issue leaf authority "$@"; sign leaf; }
# below EXTENSION…: signs with a good certificate of a new authority
below() { issue middle authority "$@"; issue leaf middle $signs $code; sign leaf -certfile middle.pem; }
# deep N: signs with N authorities between the anchor and the signer
deep() {
    by=authority; for i in $(seq $1); do issue middle$i $by $ca; by=middle$i; done
    issue leaf $by $signs $code; cat middle?.pem >all; sign leaf -certfile all
}
)";

/// What a signature consists of, to be put together otherwise.
struct Parts {
    std::string version;
    std::string digests;
    std::string content;
    std::string certificates;
    std::string lists = {};
    std::string signers;

    explicit Parts(const std::string &signature) {
        DERReader outer(DERReader(signature).take(Tag::sequence).value().content);
        type_ = outer.take(Tag::objectIdentifier).value().whole;
        DERReader inner(outer.take(Tag::context0).value().content);
        DERReader reader(inner.take(Tag::sequence).value().content);
        version = reader.take(Tag::integer).value().whole;
        digests = reader.take(Tag::set).value().content;
        content = reader.take(Tag::sequence).value().whole;
        certificates = reader.take(Tag::context0).value().content;
        signers = reader.take(Tag::set).value().content;
    }

    std::string bytes() const {
        const auto fields = version + derElement(Tag::set, digests) + content +
                            derElement(Tag::context0, certificates) + lists +
                            derElement(Tag::set, signers);
        return derElement(Tag::sequence,
                          type_ + derElement(Tag::context0, derElement(Tag::sequence, fields)));
    }

private:
    std::string type_;
};

class CodeOf : public testing::Test {
protected:
    const TemporaryTree tree_{{"base/program", text(std::string(SampleProgram().bytes()))},
                              {"base/anchors", directory()}};
    std::string folder_; ///< where the program of the present case lies

    void SetUp() override {
        runIn("base", "authority authority; issue signer authority $signs $code; "
                      "cp authority.pem anchors; sign signer");
    }

    void runIn(const std::string &folder, const std::string &commands) {
        folder_ = (tree_ / folder).path();
        const auto outcome = shell(functions + ("cd " + folder_ + "; " + commands));
        ASSERT_EQ(outcome.exitCode, 0) << commands << "\n" << outcome.out;
    }

    /// Begins a case: a folder with a signed program, and what the commands do in it.
    void prepare(const std::string &commands) {
        const auto name = "case-" + std::to_string(++cases_);
        runIn("base", "cp -a . ../" + name);
        runIn(name, commands);
    }

    FileURL file(const std::string &name = "program") const {
        return FileURL(folder_ + "/" + name);
    }
    CodeAnchors anchors() const { return {FileURL(folder_ + "/anchors", true), ::getuid()}; }

    void write(const std::string &name, const std::string &bytes) const {
        std::ofstream stream(file(name).path(), std::ios::binary);
        check(static_cast<bool>(stream << bytes << std::flush), name);
    }

    /// Who the program is, or why its signature is not accepted.
    std::string verdict(const Code &code, const std::function<bool()> &isCancelled = {}) const {
        try {
            const auto information = code.signingInformation(anchors(), isCancelled);
            EXPECT_TRUE(information.endsInAnchor);
            return information.identifier + " of " + information.teamID;
        } catch (const PlatformError &error) {
            return error.message();
        }
    }
    std::string verdict() const { return verdict(Code::at(file())); }

private:
    int cases_ = 0;
};

TEST_F(CodeOf, aGoodSignerAloneIsAccepted) {
    constexpr const char *none = "There is no signature";
    constexpr const char *notDER = "no CMS message";
    constexpr const char *otherBytes = "is not valid: verification failure";
    constexpr const char *unknown = "unable to get local issuer certificate";
    constexpr const char *notForCode = "The signing certificate is not one for signing code.";
    constexpr const char *authority = "The signing certificate is an authority's.";
    constexpr const char *limited = "An authority above the signing certificate is not one";
    const std::pair<const char *, const char *> cases[] = {
        {"", good},
        {"md=sha512 sign signer", good},
        {"sign signer -keyid", good},
        {"below $ca $code", good},
        {"deep 3", good},
        {"leaf $signs,keyAgreement $mail,codeSigning", good},
        {"team=AAAAAAAAAA leaf $signs $code", "app.klarbox.Klarbox of AAAAAAAAAA"},
        {"sed -i 's/Klarbox</Klarbax</' program; sign signer", "app.klarbox.Klarbax of K7L4R9B0X2"},
        {"sed -i s/__info_plist/__info_plisd/ program; sign signer",
         "carries no information property list"},
        {"truncate -s -9 program; sign signer", "The executable is damaged."},
        {"truncate -s 65M program", "no regular file of a reasonable size"},
        {"sed -i s/1.2.3/1.2.4/ program", otherBytes},
        {"printf x >>program", otherBytes},

        {"rm program.cms", none},
        {"mv program.cms good; ln -s good program.cms", none},
        {"rm program.cms; mkfifo program.cms", none},
        {": >program.cms", notDER},
        {"echo >>program.cms", notDER},
        {"head -c 16384 /dev/zero >>program.cms", "is longer than one can be"},
        {"sign signer -nodetach", "no detached CMS signature"},
        {"sign signer -econtent_type 1.2.3", "no detached CMS signature"},
        {"sign signer -noattr", "has no signed attributes"},
        {"md=sha1 sign signer", "not one of the SHA-2 family"},
        {"sign signer -nocerts", "does not carry the signing certificate"},
        {"leaf $signs $code; sign signer -signer leaf.pem -inkey leaf.key",
         "does not have exactly one signer"},

        {"authority other; issue leaf other $signs $code; sign leaf", unknown},
        {"authority authority; leaf $signs $code authorityKeyIdentifier=none",
         "certificate signature failure"},
        {"sign authority", notForCode},
        {"leaf $ca $signs $code", authority},
        {"leaf $signs,keyCertSign $code", authority},
        {"leaf basicConstraints=CA:FALSE", notForCode},
        {"leaf $code", notForCode},
        {"leaf keyUsage=keyAgreement $code", notForCode},
        {"leaf $signs", notForCode},
        {"leaf $signs $mail", notForCode},
        {"leaf $signs extendedKeyUsage=anyExtendedKeyUsage", notForCode},
        {"below $ca $mail", limited},
        {"authority mail $mail; cp mail.pem anchors; issue leaf mail $signs $code; sign leaf",
         limited},
        {"below $signs $code", "invalid CA certificate"},
        {"deep 4", "certificate chain too long"},
        {"key=rsa:1024 leaf $signs $code", "EE certificate key too weak"},
        {"digest=-sha1 leaf $signs $code", "CA signature digest algorithm too weak"},
        {"days=-1 leaf $signs $code", "certificate has expired"},
    };
    for (const auto &[preparation, expected] : cases) {
        SCOPED_TRACE(preparation);
        prepare(preparation);
        EXPECT_THAT(verdict(), HasSubstr(expected));
    }
}

TEST_F(CodeOf, nobodyIsAcceptedWhenAnyAnchorIsNotToBeTrusted) {
    const std::pair<const char *, const char *> cases[] = {
        {"chmod g+w anchors", "/anchors” is not trusted: others may change it."},
        {"chmod o+w anchors", "/anchors” is not trusted: others may change it."},
        {"chmod o+w .", "” is not trusted: others may change it."},
        {"chmod g+w anchors/authority.pem", "/authority.pem” is not trusted"},
        {"chmod o+w anchors/authority.pem", "/authority.pem” is not trusted"},
        {"mv anchors real; ln -s real anchors", "/anchors” could not be opened"},
        {"rm -r anchors", "/anchors” could not be opened"},
        {"ln -s authority.pem anchors/more.pem", "/more.pem” could not be read"},
        {"mkdir anchors/more.pem", "/more.pem” is no file of certificates"},
        {"mkfifo anchors/more.pem", "/more.pem” is no file of certificates"},
        {": >anchors/more.pem", "/more.pem” is no file of certificates"},
        {"cp signer.key anchors/more.pem", "/more.pem” is no file of certificates"},
        {"head -n 3 authority.pem >>anchors/authority.pem", "/authority.pem” is no file"},
        {"sed 's/^MII/MIJ/' authority.pem >anchors/more.pem", "/more.pem” is unusable"},
        {"(cat authority.pem; head -c 65536 /dev/zero) >anchors/more.pem", "/more.pem” is no file"},
        {"rm anchors/*", "unable to get local issuer certificate"},
        // What is not called an anchor is none, good or bad, and two may be the same.
        {"echo >anchors/README; echo >anchors/.more.pem; cat *.pem >anchors/more.pem; "
         "cp authority.pem anchors/again.pem",
         good},
    };
    for (const auto &[preparation, expected] : cases) {
        SCOPED_TRACE(preparation);
        prepare(preparation);
        EXPECT_THAT(verdict(), HasSubstr(expected));
    }
    if (isRoot()) {
        prepare("chown 65534 anchors/authority.pem");
        EXPECT_THAT(verdict(), HasSubstr("/authority.pem” is not trusted"));
    }
}

TEST_F(CodeOf, aSignatureOfAnotherShapeIsRefusedBeforeItCostsAnything) {
    // Hashing this takes long enough to be seen.
    prepare("truncate -s 64M program; sign signer -econtent_type 1.2.3");
    const auto otherContent = FileManager::contents(file("program.cms"));
    runIn("case-1", "sign signer");
    const Parts p(FileManager::contents(file("program.cms")));
    const auto digest = [](const std::string &identifier, const std::string &parameters = {}) {
        return derElement(Tag::sequence,
                          derElement(Tag::objectIdentifier, identifier) + parameters);
    };
    const std::string sha256 = "\x60\x86\x48\x01\x65\x03\x04\x02\x01";
    const std::string sha512 = "\x60\x86\x48\x01\x65\x03\x04\x02\x03";
    std::string thousand;
    for (int i = 0; i < 1000; ++i) {
        thousand += p.digests;
    }
    std::string certificates;
    for (std::size_t i = 0; i <= SignatureShape::mostCertificates; ++i) {
        certificates += p.certificates;
    }
    const auto signer = std::string(DERReader(p.signers).take(Tag::sequence).value().content);
    auto otherSignature = p.signers;
    otherSignature.back() ^= 1;
    // Behind its type: a set of one octet string.
    auto otherDigest = p.signers;
    otherDigest[otherDigest.find("\x2a\x86\x48\x86\xf7\x0d\x01\x09\x04") + 13] ^= 1;

    constexpr const char *oneDigest = "does not have exactly one digest algorithm";
    constexpr const char *sha2 = "not one of the SHA-2 family";
    const std::tuple<std::string Parts::*, std::string, const char *> cases[] = {
        {&Parts::digests, p.digests, good},
        {&Parts::digests, digest(sha256, derElement(Tag::null, "")), good},
        {&Parts::digests, digest(sha256, derElement(Tag::null, "x")), sha2},
        {&Parts::digests, digest(sha256, derElement(Tag::integer, "x")), "no CMS message"},
        {&Parts::digests, digest("\x2b\x0e\x03\x02\x1a"), sha2},
        {&Parts::digests, digest(sha512), oneDigest},
        {&Parts::digests, p.digests + digest(sha512), oneDigest},
        {&Parts::digests, thousand, oneDigest},
        {&Parts::digests, "", oneDigest},
        {&Parts::certificates, certificates, "carries too many certificates"},
        {&Parts::certificates, p.certificates + derElement(Tag::sequence, "x"), "no CMS message"},
        {&Parts::lists, derElement(Tag::context1, ""), "carries revocation lists"},
        {&Parts::signers, p.signers + p.signers, "exactly one signer"},
        {&Parts::signers, derElement(Tag::sequence, signer + derElement(Tag::context1, "")),
         "attributes that are not signed"},
        {&Parts::signers, Parts(otherContent).signers, "not one over data"},
        {&Parts::signers, otherSignature, "verification failure"},
        {&Parts::signers, otherDigest, "verification failure"},
    };
    for (const auto &[part, value, expected] : cases) {
        auto parts = p;
        parts.*part = value;
        write("program.cms", parts.bytes());
        int asked = 0;
        const auto found = verdict(Code::at(file()), [&] { return ++asked < 0; });
        EXPECT_THAT(found, HasSubstr(expected)) << testing::PrintToString(value);
        EXPECT_EQ(asked == 1, expected != good) << "the program was read";
    }
}

TEST(DERReader, takesNothingThatCouldHaveBeenWrittenOtherwise) {
    using namespace std::string_literals;
    // How an element begins, how many bytes follow, and whether that is one.
    const struct {
        std::string header;
        std::size_t following;
        bool isWhole = false;
    } cases[] = {
        {"\x04\0"s, 0, true},
        {"\x04\x7f", 127, true},
        {"\x04\x81\x80", 128, true},
        {"\x04\x82\x01\0"s, 256, true},
        {"", 0},
        {"\x04", 0},
        {"\x04\x03", 2},
        {"\x04\x81", 0},
        {"\x04\x81\x7f", 127},
        {"\x04\x81\x80", 127},
        {"\x04\x82\x01", 0},
        {"\x04\x82\0\xff"s, 255},
        {"\x04\x83\0\x01\0"s, 256},
        {"\x04\x80\x01x\0\0"s, 0},
        {"\x04\xff", 200},
        {"\x30\x01", 1},
    };
    for (const auto &[header, following, isWhole] : cases) {
        const auto size = header.size() + following;
        // What lies behind would make some of them whole.
        const auto memory = header + std::string(following, 'x') + std::string(400, '\x80');
        DERReader reader(std::string_view(memory).substr(0, size));
        EXPECT_EQ(reader.take(Tag::octetString).has_value(), isWhole)
            << testing::PrintToString(header);
    }
}

TEST_F(CodeOf, whatIsToldWasVerifiedAlsoWhenTheFileChangesMeanwhile) {
    prepare("");
    const auto genuine = Code::at(file()).signingInformation(anchors());
    EXPECT_EQ(genuine, (SigningInformation{.endsInAnchor = true,
                                           .identifier = "app.klarbox.Klarbox",
                                           .teamID = "K7L4R9B0X2",
                                           .version = "1.2.3",
                                           .isXPCClient = true}));
    const auto bytes = FileManager::contents(file());
    const auto with = [&](std::string_view was, std::string_view is) {
        return std::string(bytes).replace(bytes.find(was), was.size(), is);
    };
    const std::pair<std::string, std::string> cases[] = {
        // What is verified, and what is there when the program is asked who it is.
        {bytes, with("Klarbox<", "Klarbax<")},
        {bytes, with("__xpc_client", "__xpc_clienx")},
        {bytes.substr(0, bytes.find("<plist>")), bytes},
    };
    for (const auto &[verified, shown] : cases) {
        write("program", verified);
        runIn("case-1", "sign signer");
        write("program", shown);
        int asked = 0;
        const auto exchange = [&, &verified = verified] {
            if (++asked == 2) {
                write("program", verified);
            }
            return false;
        };
        EXPECT_THAT(verdict(Code::at(file()), exchange),
                    HasSubstr("it changed while it was being verified"));
    }
}

TEST_F(CodeOf, whatLostItsNameIsNotTakenForTheFileOfTheNameThatTheKernelShows) {
    prepare("");
    const auto code = Code::at(file());
    UniqueFD executable(::open(file().path().c_str(), O_RDONLY | O_CLOEXEC));
    auto signature = Code::openSignature(executable);
    const Code open(std::move(executable), std::move(signature));
    const std::string other = "program (deleted)";
    for (const char *commands :
         {"mv program.cms 'program (deleted).cms'; rm program",
          "cp ../base/program 'program (deleted)'", "cp ../base/program ../base/program.cms ."}) {
        runIn("case-1", commands);
        EXPECT_THAT(verdict(code), HasSubstr("was replaced or removed")) << commands;
    }
    EXPECT_EQ(verdict(Code::at(file(other))), good);
    EXPECT_EQ(verdict(), good);
    // Who has both open needs no names.
    EXPECT_EQ(verdict(open), good);
}

TEST_F(CodeOf, aVerificationEndsAtTheNextPieceOnceItIsCancelled) {
    prepare("truncate -s 2M program; sign signer");
    const auto code = Code::at(file());
    int pieces = 0;
    ASSERT_EQ(verdict(code, [&] { return ++pieces < 0; }), good);
    EXPECT_GE(pieces, 1 + (2 << 20) / (256 << 10));
    for (int piece = 1; piece <= pieces; ++piece) {
        int asked = 0;
        try {
            static_cast<void>(code.signingInformation(anchors(), [&] { return ++asked == piece; }));
            ADD_FAILURE() << piece;
        } catch (const PlatformError &error) {
            EXPECT_EQ(error.domain(), PlatformError::Domain::posix);
            EXPECT_EQ(error.code(), ECANCELED);
        }
        EXPECT_EQ(asked, piece);
    }
    // Nothing that a stranger brings is read through.
    runIn("case-1", "rm anchors/authority.pem");
    int asked = 0;
    EXPECT_THAT(verdict(code, [&] { return ++asked < 0; }), HasSubstr("local issuer"));
    EXPECT_EQ(asked, 1);
}

} // namespace
} // namespace klarbox::test
