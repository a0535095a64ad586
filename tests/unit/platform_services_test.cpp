// The OpenVPN server and client files as Debian's openvpn takes them: both servers start and a
// client of each connects with the download bundle's files.
#include "platform/nvram.h"
#include "platform/vesk_shared.h"
#include "tests/support/testroot.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>

using testing::HasSubstr;

namespace {

// A CA, server and client certificates on P-256 keys, and 2048-bit DH parameters under the
// router's file name (Debian's OpenSSL refuses 1024 bits), as start_openvpn's working copies.
const char *const kCertificates = R"(set -e; cd /tmp/openvpn; ssl=/host/usr/bin/openssl
printf '[req]\ndistinguished_name = dn\n[dn]\n' > ssl.cnf
key='-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -config ssl.cnf'
$ssl req -x509 $key -keyout ca.key -out ca.crt -days 2 -subj /CN=ca \
  -addext basicConstraints=critical,CA:TRUE -addext keyUsage=keyCertSign,cRLSign
for role in server client; do
  printf 'basicConstraints=CA:FALSE\nkeyUsage=digitalSignature,keyAgreement\n' > $role.ext
  echo extendedKeyUsage=${role}Auth >> $role.ext
  $ssl req $key -keyout $role.key -out $role.csr -subj /CN=$role
  $ssl x509 -req -in $role.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 2 \
    -extfile $role.ext -out $role.crt
done
$ssl genpkey -genparam -algorithm DH -pkeyopt group:ffdhe2048 -out dh1024.pem
mkdir /tmp/openvpn_zip
cp /tmp/client1.ovpn /tmp/client2.conf ca.crt client.crt client.key /tmp/openvpn_zip
)";

bool completed(const std::string &log) {
    return testroot::wait_for(
        [&] {
            return testroot::read_file(log).find("Initialization Sequence Completed") !=
                   std::string::npos;
        },
        std::chrono::seconds(30));
}

TEST(OpenVpnFiles, Servers_StartWithDebiansOpenvpn_ClientsConnect) {
    testroot::reset();
    const std::string openvpn = "/host/usr/sbin/openvpn --daemon ";
    ASSERT_EQ(access("/host/usr/sbin/openvpn", X_OK), 0)
        << "openvpn is installed by tools/install-deps";
    for (auto [key, value] :
         {std::pair{"openvpnActive", "enable"}, {"lan_ipaddr", "192.168.1.1"},
          {"lan_netmask", "255.255.255.0"}, {"openvpn_client_remote", "127.0.0.1"},
          {"openvpn_service_proto_tun", "tcp"}})  // both protocols get started
        veskNvramConfig_set(key, value);
    ASSERT_EQ(openvpn_make_config_file(), 0);
    testroot::write_file("/tmp/openvpn/certificates.sh", kCertificates);
    ASSERT_EQ(std::system("sh /tmp/openvpn/certificates.sh >/dev/null 2>&1"), 0);
    mkdir("/dev/net", 0755);
    ASSERT_TRUE(mknod("/dev/net/tun", S_IFCHR | 0600, makedev(10, 200)) == 0 || errno == EEXIST);
    // As start_openvpn starts them: the tap server's log FIFO with its reader first.
    ASSERT_EQ(initial_abfifo("/tmp/openvpn_log_tap", "/tmp/openvpn_log_tap2", 10), 0);
    ASSERT_EQ(std::system((openvpn + "--config /tmp/server_tun.conf").c_str()), 0);
    ASSERT_EQ(std::system((openvpn + "--config /tmp/server_tap.conf").c_str()), 0);
    EXPECT_TRUE(completed("/tmp/openvpn_log_tun")) << testroot::read_file("/tmp/openvpn_log_tun");
    EXPECT_TRUE(completed("/tmp/openvpn_log_tap2")) << testroot::read_file("/tmp/openvpn_log_tap2");
    for (const std::string client : {"client1.ovpn", "client2.conf"}) {
        const std::string log = "/tmp/" + client + ".log";
        const std::string start = openvpn + "--cd /tmp/openvpn_zip --config " + client;
        ASSERT_EQ(std::system((start + " --log " + log).c_str()), 0);
        EXPECT_TRUE(completed(log)) << testroot::read_file(log);
    }
    EXPECT_THAT(testroot::read_file("/tmp/client1.ovpn.log"),
                HasSubstr("PUSH_REPLY,route 192.168.1.0 255.255.255.0,dhcp-option DNS 10.8.0.1"));
}

}  // namespace
