#pragma once

// The keys of the ISDN trunk files, in the order in which the mapping takes them.
inline constexpr const char* src_patterns[] = {"encoding_type",
                                               "line_code",
                                               "frame_mode",
                                               "tx_lbo",
                                               "sync_clock",
                                               "loopbackmode",
                                               "echoTail",
                                               "echoDelay",
                                               "nlp_diff",
                                               "nlp_shift",
                                               "transmitEnergy",
                                               "receiveEnergy",
                                               "processSaturation",
                                               "patternCount",
                                               "echoAdvancedSettings",
                                               "networkside",
                                               "call_control_signaling_type"};

inline constexpr const char* dest_patterns[] = {"encoding_type",
                                                "line_code",
                                                "frame_mode",
                                                "tx_lbo",
                                                "sync_clock",
                                                "loopbackmode",
                                                "echoTail",
                                                "echoDelay",
                                                "nlp_diff",
                                                "nlp_shift",
                                                "transmitEnergy",
                                                "receiveEnergy",
                                                "processSaturation",
                                                "patternCount",
                                                "echoAdvancedSettings",
                                                "interface_type",
                                                "call_control_signaling_type"};

inline constexpr const char* isdn_l2_src_patterns[] = {
    "D_channel_timeslot_tx", "D_channel_timeslot_rx", "Isdn_L2_timer_T200",
    "Isdn_L2_timer_T203",    "auto_switch",           "tei_number",
    "tei_power_up"};

inline constexpr const char* isdn_l3_src_patterns[] = {"B1_channel",
                                                       "B2_channel",
                                                       "B_channel_order",
                                                       "B_channel_select_type",
                                                       "Isdn_L3_timer_T302",
                                                       "Isdn_L3_timer_T306",
                                                       "Isdn_L3_timer_T309",
                                                       "Isdn_L3_timer_T310",
                                                       "route_call",
                                                       "switch_type",
                                                       "progress_ind_type",
                                                       "generate_progress_tone",
                                                       "generate_progress_tone_pbx",
                                                       "clirService",
                                                       "called_type_number",
                                                       "calling_type_number",
                                                       "called_numbering_plan",
                                                       "calling_numbering_plan",
                                                       "enhanced_disconnect_mode",
                                                       "incoming_dnis_size",
                                                       "passive_mode"};

inline constexpr const char* isdn_bri_patterns[] = {
    "use_default_msn",      "enable_msn",          "incoming_msn",
    "route_msn_call",       "calling_ext",         "outgoing_msn",
    "calling_board_number", "alert_guard_timeout", "ddi_service"};
