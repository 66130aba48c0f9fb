#pragma once

/// What becomes of a value of an old ISDN trunk file on its way into the new ones.
enum class TrunkValue {
    AsIs,
    Route,    // a route's name is renamed
    Trimmed,  // without blanks at its ends
    Routes,   // a comma list; its items are trimmed, routes renamed
    Dropped   // nothing is written
};

/// A key of the old file, its name in the new one, and what becomes of the value.
struct TrunkKey {
    const char* from;
    const char* to;
    TrunkValue value = TrunkValue::AsIs;
};

// All keys of the old file, in the order in which the new ones get them.

/// The trunk's own keys; one that the old file lacks is written empty.
inline constexpr TrunkKey src_patterns[] = {
    {"encoding_type", "encoding_type"},
    // A BRI trunk has none of these four.
    {"line_code", "line_code", TrunkValue::Dropped},
    {"frame_mode", "frame_mode", TrunkValue::Dropped},
    {"tx_lbo", "tx_lbo", TrunkValue::Dropped},
    {"sync_clock", "sync_clock", TrunkValue::Dropped},
    {"loopbackmode", "loopbackmode"},
    {"echoTail", "echoTail"},
    {"echoDelay", "echoDelay"},
    {"nlp_diff", "nlp_diff"},
    {"nlp_shift", "nlp_shift"},
    {"transmitEnergy", "transmitEnergy"},
    {"receiveEnergy", "receiveEnergy"},
    {"processSaturation", "processSaturation"},
    {"patternCount", "patternCount"},
    {"echoAdvancedSettings", "echoAdvancedSettings"},
    {"networkside", "interface_type"},
    {"call_control_signaling_type", "call_control_signaling_type"}};

/// Each side's keys for "level_2".
inline constexpr TrunkKey isdn_l2_src_patterns[] = {
    // A BRI trunk has no time slots.
    {"D_channel_timeslot_tx", "D_channel_timeslot_tx", TrunkValue::Dropped},
    {"D_channel_timeslot_rx", "D_channel_timeslot_rx", TrunkValue::Dropped},
    {"Isdn_L2_timer_T200", "Isdn_L2_timer_T200"},
    {"Isdn_L2_timer_T203", "Isdn_L2_timer_T203"},
    {"auto_switch", "auto_switch"},
    {"tei_number", "tei_number"},
    {"tei_power_up", "tei_power_up"}};

/// Each side's keys for "level_3".
inline constexpr TrunkKey isdn_l3_src_patterns[] = {
    {"B1_channel", "B1_channel"},
    {"B2_channel", "B2_channel"},
    {"B_channel_order", "B_channel_order"},
    {"B_channel_select_type", "B_channel_select_type"},
    {"Isdn_L3_timer_T302", "Isdn_L3_timer_T302"},
    {"Isdn_L3_timer_T306", "Isdn_L3_timer_T306"},
    {"Isdn_L3_timer_T309", "Isdn_L3_timer_T309"},
    {"Isdn_L3_timer_T310", "Isdn_L3_timer_T310"},
    {"route_call", "route_call", TrunkValue::Route},
    {"switch_type", "switch_type"},
    {"progress_ind_type", "progress_ind_type"},
    {"generate_progress_tone", "generate_progress_tone_ip"},
    {"generate_progress_tone_pbx", "generate_progress_tone_pbx"},
    {"clirService", "clirService"},
    {"called_type_number", "called_type_number"},
    {"calling_type_number", "calling_type_number"},
    {"called_numbering_plan", "called_numbering_plan"},
    {"calling_numbering_plan", "calling_numbering_plan"},
    {"enhanced_disconnect_mode", "enhanced_disconnect_mode"},
    {"incoming_dnis_size", "incoming_dnis_size"},
    // It stands in the trunk's section, not in a side's; MapTrunk takes it from there.
    {"passive_mode", "passive_mode", TrunkValue::Dropped}};

/// Each side's BRI keys, for "level_3" as well.
inline constexpr TrunkKey isdn_bri_patterns[] = {
    {"use_default_msn", "use_default_msn", TrunkValue::Trimmed},
    {"enable_msn", "enable_msn", TrunkValue::Trimmed},
    {"incoming_msn", "incoming_msn", TrunkValue::Trimmed},
    {"route_msn_call", "route_msn_call", TrunkValue::Routes},
    {"calling_ext", "calling_ext", TrunkValue::Routes},
    {"outgoing_msn", "outgoing_msn", TrunkValue::Routes},
    {"calling_board_number", "calling_board_number", TrunkValue::Trimmed},
    {"alert_guard_timeout", "alert_guard_timeout", TrunkValue::Trimmed},
    {"ddi_service", "ddi_service", TrunkValue::Trimmed}};
