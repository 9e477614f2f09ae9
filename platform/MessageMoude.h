// MessageMoude: messages to the panel operator.
#ifndef PLATFORM_MESSAGEMOUDE_H_
#define PLATFORM_MESSAGEMOUDE_H_

#include <string>

class MessageMoude {
public:
    // Posts text to the operator; the library always passes 0 as type.
    static void InsertMsg(const std::string& text, int type);
};

#endif  // PLATFORM_MESSAGEMOUDE_H_
