# tq_add_messages(NAME FILE LANGUAGE): builds the message module NAME from the message file FILE for one of its languages.
# Filled in by resources/.
