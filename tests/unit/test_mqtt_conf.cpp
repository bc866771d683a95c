#include "mqtt_conf.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "temp_dir.h"

namespace
{

MqttConf read(const std::string &text)
{
    MqttConf conf;
    std::string why;
    EXPECT_TRUE(mqtt_conf_read(&conf, text, "shop7", &why)) << why;
    return conf;
}

std::string fail(const std::string &text)
{
    MqttConf conf;
    std::string why;
    EXPECT_FALSE(mqtt_conf_read(&conf, text, "shop7", &why)) << text;
    return why;
}

TEST(MqttConf, NeedsOnlyTheBroker)
{
    const MqttConf conf = read("[broker]\nhost=broker.example\n");
    EXPECT_TRUE(conf.tls);
    EXPECT_EQ(conf.port, 8883);
    EXPECT_EQ(conf.name, "shop7");
    EXPECT_EQ(conf.prefix, "sonobrik");
    EXPECT_EQ(conf.client_id, "sonobrik-shop7");
    EXPECT_TRUE(conf.discovery);
    EXPECT_FALSE(conf.allow_any_location);
}

TEST(MqttConf, ReadsEachKindOfValue)
{
    const MqttConf conf =
        read("[broker]\nhost = ::1\ntls=no\n[node]\nname=till\ngroups=ground floor; all ;\n"
             "[play]\ngrace=2500\nallow-any-location=yes\n[homeassistant]\ndiscovery=no\n");
    EXPECT_EQ(conf.host, "::1");
    EXPECT_EQ(conf.port, 1883);
    EXPECT_EQ(conf.groups, (std::vector<std::string>{"ground floor", "all"}));
    EXPECT_EQ(conf.grace, 2500);
    EXPECT_TRUE(conf.allow_any_location);
    EXPECT_FALSE(conf.discovery);
}

TEST(MqttConf, RefusesWhatItDoesNotKnow)
{
    EXPECT_EQ(fail("[broker]\nhost=a\nalow-plaintext=yes\n"),
              "there is no key 'alow-plaintext' in [broker]");
    EXPECT_EQ(fail("[brokers]\nhost=a\n"), "there is no group [brokers]");
    EXPECT_EQ(fail("[broker]\nhost=a\npassword=secret\n"),
              "there is no key 'password' in [broker]");
}

TEST(MqttConf, RefusesInvalidValues)
{
    EXPECT_EQ(fail(""), "[broker] host: no broker is named");
    EXPECT_EQ(fail("[broker]\nhost=a\nport=0\n"),
              "[broker] port: '0' is not a number from 1 to 65535");
    EXPECT_EQ(fail("[broker]\nhost=a\ntls=maybe\n"), "[broker] tls: 'maybe' is neither yes nor no");
    EXPECT_EQ(fail("[broker]\nhost=a\n[node]\nname=a/b\n"),
              "[node] name: 'a/b' cannot be a level of a topic");
    EXPECT_EQ(fail("[broker]\nhost=a\n[node]\nname=group\n"),
              "[node] name: 'group' cannot be a level of a topic");
    EXPECT_EQ(fail("[broker]\nhost=a\n[node]\nprefix=a/#\n"),
              "[node] prefix: 'a/#' cannot begin a topic");
    EXPECT_EQ(fail("[broker]\nhost=a\n[node]\ngroups=+\n"),
              "[node] groups: '+' cannot be a level of a topic");
    EXPECT_EQ(fail("[broker]\nhost=a\ncert-file=/a\n"),
              "[broker] cert-file and key-file: one needs the other");
    EXPECT_EQ(fail(std::string("[broker]\nhost=a\0b\n", 18)), "it contains a NUL byte");
}

TEST(MqttConf, RefusesToSendInTheClearUnlessToldOrLocal)
{
    EXPECT_EQ(fail("[broker]\nhost=10.0.0.1\ntls=no\n"),
              "[broker] tls: without TLS, anybody on the network between this node and '10.0.0.1' "
              "can read and change the commands; set allow-plaintext=yes if that is acceptable");
    EXPECT_FALSE(read("[broker]\nhost=10.0.0.1\ntls=no\nallow-plaintext=yes\n").tls);
    EXPECT_FALSE(read("[broker]\nhost=127.0.0.1\ntls=no\n").tls);
    EXPECT_FALSE(mqtt_conf_is_local("127.example.com"));
    EXPECT_FALSE(mqtt_conf_is_local("localhost.example.com"));
    EXPECT_TRUE(mqtt_conf_is_local("localhost"));
}

TEST(MqttConf, PrefersTheCredentialAsPassword)
{
    const TempDir folder;
    std::string why;
    std::string password;
    folder.file("credential", "one\n");
    ASSERT_EQ(chmod(folder.path("credential").c_str(), 0400), 0);
    folder.file("file", "two");
    ASSERT_EQ(chmod(folder.path("file").c_str(), 0640), 0);
    EXPECT_TRUE(
        mqtt_conf_load_password(&password, folder.path("credential"), folder.path("file"), &why));
    EXPECT_EQ(password, "one");
    EXPECT_TRUE(mqtt_conf_load_password(&password, folder.path("none"), folder.path("file"), &why));
    EXPECT_EQ(password, "two");
    EXPECT_TRUE(mqtt_conf_load_password(&password, "", "", &why));
    EXPECT_EQ(password, "");
}

TEST(MqttConf, RefusesSecretsThatOthersCanRead)
{
    const TempDir folder;
    std::string why;
    std::string password;
    folder.file("file", "two");
    ASSERT_EQ(chmod(folder.path("file").c_str(), 0604), 0);
    EXPECT_FALSE(mqtt_conf_load_password(&password, "", folder.path("file"), &why));
    EXPECT_EQ(why, folder.path("file") +
                       ": other users can read it; run 'chmod o= " + folder.path("file") + "'");
    EXPECT_FALSE(mqtt_conf_load_password(&password, folder.path("file"), "", &why));
    EXPECT_FALSE(mqtt_conf_load_password(&password, "", folder.path(""), &why));
    MqttConf conf;
    conf.cert_file = folder.path("file");
    EXPECT_TRUE(mqtt_conf_check_files(conf, &why));
    conf.key_file = folder.path("file");
    EXPECT_FALSE(mqtt_conf_check_files(conf, &why));
}

TEST(MqttConf, NamesAFileThatCannotBeRead)
{
    for (std::string MqttConf::*place :
         {&MqttConf::ca_file, &MqttConf::cert_file, &MqttConf::key_file}) {
        MqttConf conf;
        std::string why;
        EXPECT_TRUE(mqtt_conf_check_files(conf, &why));
        conf.*place = "/nowhere/file";
        EXPECT_FALSE(mqtt_conf_check_files(conf, &why));
        EXPECT_EQ(why, "/nowhere/file: No such file or directory");
    }
}

TEST(MqttConf, ReadsAFile)
{
    const TempDir folder;
    MqttConf conf;
    std::string why;
    folder.file("conf", "[broker]\nhost=a\n");
    EXPECT_TRUE(mqtt_conf_load(&conf, folder.path("conf").c_str(), "n", &why));
    EXPECT_EQ(conf.host, "a");
    EXPECT_FALSE(mqtt_conf_load(&conf, folder.path("none").c_str(), "n", &why));
    EXPECT_EQ(why, "No such file or directory");
}

} // namespace
