#include "screen/site_reports.h"

#include <gtest/gtest.h>

namespace
{

using std::string;
using lines = std::vector<string>;

string mac_of(int card)
{
    return mac_text({2, 0, 0, 0, 0, static_cast<uint8_t>(card)});
}

// A record of a port list: card, its number, port A.
string listed(int card)
{
    return {2, 0, 0, 0, 0, static_cast<char>(card), static_cast<char>(card), 1};
}

class diagctl_site : public testing::Test
{
protected:
    diagctl_site()
    {
        all.set_there(0, true);
        all.set_there(1, true);
    }

    site_changes apply(size_t broker, const string &topic, const string &payload, bool is_retained = true)
    {
        const bytes given(reinterpret_cast<const uint8_t *>(payload.data()), payload.size());
        return site_apply(all.account(broker), topic, given, is_retained, now);
    }
    void view(int card, const string &topic, const string &payload, bool is_retained = true)
    {
        apply(0, "cards/" + mac_of(card) + "/" + topic, payload, is_retained);
    }
    // Each card hears the others.
    void make_network(const std::vector<int> &cards)
    {
        for (const int card : cards) {
            view(card, "bridge", "1");
            view(card, "pub/diag/net/fire/link_down", string(1, '\0'));
            for (const int other : cards) {
                view(card, "pub/diag/" + mac_of(other) + "/port_summary", other == card ? "" : "{}");
            }
        }
    }
    void lose(int card, int other) { view(card, "pub/diag/" + mac_of(other) + "/port_summary", "", false); }
    // The networks by the last digits of their cards' addresses, and where they differ.
    lines networks() const
    {
        lines out;
        for (const site_network &shown : all.networks()) {
            string text;
            for (const mac_address &mac : shown.cards) {
                text += std::to_string(mac[5]);
            }
            out.push_back(text);
            for (view_difference item : shown.differences) {
                item.since.reset();
                string said = difference_text(all, item);
                for (size_t at; (at = said.find("02-00-00-00-00-0")) != string::npos;) {
                    said.erase(at, 16);
                }
                out.push_back(said);
            }
        }
        return out;
    }

    site all{2};
    moment now{};
};

} // namespace

TEST_F(diagctl_site, groups_cards_wrongly_or_hides_that_their_views_differ)
{
    make_network({1, 2, 3, 4});
    make_network({5, 6});
    make_network({7});
    EXPECT_EQ(networks(), (lines{"1234", "56", "7"}));

    // One card hasn't heard of a fault yet.
    for (const int card : {1, 2, 3}) {
        view(card, "pub/diag/net/fire/link_down", listed(2), false);
    }
    EXPECT_EQ(networks(),
              (lines{"1234", "2 port A is in the link-down list of 1, 2, 3, not of 4", "56", "7"}));
    view(4, "pub/diag/net/fire/link_down", listed(2), false);

    // One doesn't hear another; then nobody does.
    lose(4, 1);
    EXPECT_EQ(networks(), (lines{"1234", "1 isn't heard by 4", "56", "7"}));
    lose(2, 1);
    lose(3, 1);
    EXPECT_EQ(networks(), (lines{"1234", "nobody hears 1", "56", "7"}));
    view(1, "bridge", "0", false);
    EXPECT_EQ(networks(), (lines{"1234", "56", "7"})) << "a card that isn't connected has no say";
    lose(5, 6);
    lose(6, 5);
    EXPECT_EQ(networks(), (lines{"1234", "56", "the network is in parts: 6 don't hear 5", "7"}));
}

TEST_F(diagctl_site, takes_the_word_of_the_wrong_broker)
{
    const string presence = "cards/" + mac_of(1) + "/bridge";
    const string job = "pub/diag/" + mac_of(1) + "/job_name";
    const mac_address mac = {2, 0, 0, 0, 0, 1};
    const auto name = [&] { return all.find(mac)->facts[TOPIC_JOB_NAME].value.value_or("-"); };
    apply(1, job, "SECOND");
    EXPECT_EQ(name(), "SECOND") << "only one knows the card";
    apply(0, presence, "1");
    apply(0, job, "FIRST");
    apply(1, presence, "1");
    EXPECT_EQ(name(), "FIRST");
    all.set_there(0, false);
    EXPECT_EQ(name(), "SECOND") << "the first has gone";
    all.clear(0);
    all.set_there(0, true);
    now.steady += std::chrono::seconds(1);
    apply(0, presence, "1", false);
    EXPECT_EQ(name(), "SECOND") << "the first has come back and may not have been told everything";
    EXPECT_EQ(all.is_connected(mac), true);
    apply(1, presence, "0", false);
    apply(0, job, "AGAIN", false);
    EXPECT_EQ(name(), "AGAIN");
    EXPECT_EQ(all.is_connected(mac), true) << "one connection is enough";
    apply(0, presence, "0", false);
    EXPECT_EQ(all.is_connected(mac), false);
}

TEST_F(diagctl_site, grows_or_errs_with_what_no_card_sends)
{
    make_network({1, 2});
    const string own = "cards/" + mac_of(1) + "/";
    for (const string &topic :
         lines{"", "cards", "cards/", "pub/diag/", "pub/diag/net/fire/link_down", "pub/diag/local_node",
               "cards/02-00-00-00-00-0a/bridge", "pub/diag/02-00-00-00-00-0a/job_name", "cards/" + mac_of(3),
               "cards/" + mac_of(3) + "x/bridge", own + "else",
               own + "pub/diag/" + mac_of(1) + "/port_summary", own + "pub/diag/x/port_summary"}) {
        const size_t before = all.account(0).foreign;
        apply(0, topic, "x", false);
        EXPECT_EQ(all.account(0).foreign, before + 1) << topic;
    }
    apply(0, own + "bridge", string(10'000'000, '0'), false);
    apply(0, own + "bridge", "2", false);
    apply(0, own + "pub/diag/net/fire/link_down", "short", false);
    EXPECT_EQ(all.cards().size(), 2U);
    EXPECT_EQ(networks(), (lines{"12"}));

    for (int other = 0; other < 2000; other++) {
        char mac[] = "03-00-00-00-00-00";
        snprintf(mac, sizeof mac, "03-00-00-00-%02X-%02X", static_cast<unsigned>(other) / 256,
                 static_cast<unsigned>(other) % 256);
        apply(0, own + "pub/diag/" + mac + "/port_summary", "{}", false);
    }
    EXPECT_EQ(all.card({2, 0, 0, 0, 0, 1})->others.size(), SITE_OTHERS_MAX);
}
