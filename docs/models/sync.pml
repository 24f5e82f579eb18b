/* Locks and conditions as threads see them, for all models. A comment such as "wakeup.test" behind a line names a step;
   the same name stands in the source at the line that does it.

   What a thread does under a lock to data that only this lock guards is one step with the taking or the giving back of
   the lock: no other thread can see what is between. */

inline lock(mutex) { atomic { !mutex -> mutex = true } }
inline unlock(mutex) { mutex = false }
