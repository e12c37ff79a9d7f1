// The topics of a card's broker, each named once for the daemon, its tools, the lab, the benchmarks and the
// fuzzers. docs/topics.md says what stands in them. <MAC> is the address of a node, such as
// 00-1A-2B-3C-4D-5E; a _FORMAT is for printf, its arguments stand behind it.
#pragma once

#include <string_view>

// Requests of clients
constexpr const char *REQUEST_TOPIC = "pub/diag/command/request";
constexpr const char *RESPONSE_TOPIC = "pub/diag/command/response";
constexpr const char *CHALLENGE_TOPIC = "pub/diag/command/aut/tbl_idx";

// The network
constexpr const char *LOCAL_NODE_TOPIC = "pub/diag/local_node"; // the MAC address of the daemon's own node
constexpr const char *LINK_DOWN_TOPIC = "pub/diag/net/fire/link_down";
constexpr const char *GROUND_TOPIC = "pub/diag/net/fire/grnd_list";
constexpr const char *MISWIRED_TOPIC = "pub/diag/net/fire/miswired";
constexpr const char *MISWIRED_LINKS_TOPIC = "pub/diag/net/fire/miswired_links";
constexpr const char *LISTS_FILTER = "pub/diag/net/fire/+"; // the four above
constexpr const char *NETWORK_STYLE7_TOPIC = "local/diag/network_style7";

// Values for the processes of the card, on the broker of the node that an activate or remote download is for
constexpr const char *ACTIVATE_TOPIC = "local/activate";
constexpr const char *REMOTE_DOWNLOAD_TOPIC = "local/remotedl";

// Everything published, and everything local to the card
constexpr std::string_view DIAG_PREFIX = "pub/diag/";
constexpr const char *DIAG_FILTER = "pub/diag/#";
constexpr const char *LOCAL_FILTER = "local/#";

// A node: pub/diag/<MAC>/<name>. All but versions and card address are withdrawn when the node leaves.
constexpr const char *NODE_TOPIC_FORMAT = "pub/diag/%s/%s"; // MAC, name
constexpr const char *NODE_FILTER_FORMAT = "pub/diag/%s/#"; // MAC
constexpr const char *NODE_TOPICS_FILTER = "pub/diag/+/+";
constexpr const char *NODE_PORT_SUMMARY = "port_summary";
constexpr const char *NODE_PORT_MEDIA = "port_media";
constexpr const char *NODE_JOB_REV = "job_rev";
constexpr const char *NODE_JOB_NAME = "job_name";
constexpr const char *NODE_DOWNLOAD_STATUS = "download_status";
constexpr const char *NODE_CF_FREE_SPACE = "CF_free_space";
constexpr const char *NODE_M301 = "M301";
constexpr const char *NODE_M702 = "M702";
constexpr const char *NODE_COMM_LOSS = "comm_loss";
constexpr const char *NODE_DOWNLOAD_PENDING = "download_pending";
constexpr const char *NODE_REPEATER = "repeater";
constexpr const char *NODE_SOFTWARE_VERSIONS = "software_versions";
constexpr const char *NODE_CARD_ADDR = "card_addr";

// A port of a node: pub/diag/<MAC>/<PORT>/<name>. Performance records have the slots period0 to period95 and
// day0 to day6.
constexpr const char *STATS_FORMAT = "pub/diag/%s/%s/stats";        // MAC, port
constexpr const char *PM_FORMAT = "pub/diag/%s/%s/pm/%s";           // MAC, port, slot
constexpr const char *PM_LAST_FORMAT = "pub/diag/%s/%s/pm/last_%s"; // MAC, port, PM_PERIOD or PM_DAY
constexpr const char *PORT_STATS = "stats";
constexpr std::string_view PM_PREFIX = "pm/";
constexpr const char *PM_PERIOD = "period";
constexpr const char *PM_DAY = "day";
constexpr const char *PM_LAST_PERIOD = "pm/last_period"; // the slot written last
constexpr const char *PM_LAST_DAY = "pm/last_day";

// What the card's processes tell of its ports: local/diag/port/<PORT>/<name>
constexpr const char *PORT_PREFIX = "local/diag/port/";
constexpr const char *PORT_FACT_FORMAT = "local/diag/port/%s/%s"; // port, name
constexpr const char *PORT_TYPE_FILTER = "local/diag/port/+/type";
constexpr const char *PORT_STATUS_FILTER = "local/diag/port/+/status";
constexpr const char *FACT_TYPE = "type";
constexpr const char *FACT_MEDIA = "media";
constexpr const char *FACT_LINK_DOWN = "link_down";
constexpr const char *FACT_GROUND = "grnd";
constexpr const char *FACT_STATS = "stats";
constexpr const char *FACT_STATUS = "status"; // of the ring protection

// ... of its rings: local/diag/ring/<n>/status
constexpr std::string_view RING_PREFIX = "local/diag/ring/";
constexpr std::string_view RING_SUFFIX = "/status";
constexpr const char *RING_STATUS_FILTER = "local/diag/ring/+/status";
constexpr const char *RING_0_TOPIC = "local/diag/ring/0/status"; // the only ring of a lab

// ... and of the other nodes' addresses on the fire network: local/diag/node/<MAC>/fire_ip
constexpr const char *FIRE_IP_PREFIX = "local/diag/node/";
constexpr const char *FIRE_IP_SUFFIX = "/fire_ip";
constexpr const char *FIRE_IP_FILTER = "local/diag/node/+/fire_ip";
