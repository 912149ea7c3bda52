#pragma once

// What the stand-in for the PAM library (RecordingPam.cpp) does and has seen. A test opens the stand-in too, and finds
// this in it under the name g_RecordingPam.
struct RecordingPam
{
    // What the functions return.
    int m_StartResult;
    int m_AuthenticateResult;

    // The conversation that pam_authenticate() holds: of so many messages, without a place for the answer where
    // m_HasNoPlaceForAnswers. None at all when m_MessageCount is -99.
    int m_MessageCount;
    bool m_HasNoPlaceForAnswers;

    // What came of it.
    int m_ConversationResult;
    bool m_HasAnswers;      // the conversation set them
    int m_AnswersWithText;  // of the answers behind the first
    char m_FirstAnswer[64]; // empty when there is none

    // One line for each call, with the arguments.
    char m_Calls[512];
};
