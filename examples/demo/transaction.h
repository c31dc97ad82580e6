/* transaction: a change of the database that is made as a whole or not at all. */
#ifndef DEMO_TRANSACTION_H
#define DEMO_TRANSACTION_H

#include "connection.h"
#include "write_turn.h"

/* Holds the turn to write while it lives, and is rolled back unless it is committed. */
class c_transaction {
public:
    c_transaction(c_write_turn& of, c_connection& on) : turn(of), connection(on), taken(turn.take())
    {
        open = taken && connection.run("BEGIN IMMEDIATE");
    }
    ~c_transaction()
    {
        if (open)
            connection.run("ROLLBACK");
        if (taken)
            turn.give();
    }
    c_transaction(const c_transaction&) = delete;
    c_transaction& operator=(const c_transaction&) = delete;

    bool commit()
    {
        if (!open || !connection.run("COMMIT"))
            return false;
        open = false;
        return true;
    }

private:
    c_write_turn& turn;
    c_connection& connection;
    bool taken;
    bool open;
};

#endif
