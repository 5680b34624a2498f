// Serial device layer for the ports of the main chip: the table of open ttys, their termios
// settings, one reader thread for all of them, and writes.
#ifndef SERIALBASIC_SERIAL_DEV_OPERATE_H
#define SERIALBASIC_SERIAL_DEV_OPERATE_H

#include <pthread.h>
#include <sys/select.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <vector>

#include "SerialDefine.h"
#include "SerialPortWriter.h"

class CPeripheralBase;
class CSerialBase;
struct termios;

// Text tables of the configuration words.
SerialBaudRate serial_baud_switch(const std::string& word);
SerialDataBitMode serial_data_bit_switch(const std::string& word);
SerialStopBitMode serial_stop_bit_switch(const std::string& word);
SerialParityMode serial_parity_switch(const std::string& word);
SerialFlowControlMode serial_flow_control_switch(const std::string& word);
// Line speed in bit/s of a baud rate code; 4800 for any value outside 1-8.
unsigned int serial_baud_rate_speed(SerialBaudRate baud);
// termios speed constant of a line speed: 1 and `speed` set for 2400 ... 115200, else 0.
int serial_get_baud_speed(unsigned int baud, unsigned int& speed);
// The single digit after "/dev/ttyAMA" (else "/dev/ttyACM") in a path, or -1.
int serial_port_id(const std::string& path);
// Raw mode as serial_set_property prepares it before the speed is applied.
void serial_termios_make_raw(struct termios& tio);
// Character size, stop bits and parity for the SERIAL_PROPERTY_* bits of `mask`, then the
// read timing (VTIME 10, VMIN 0) that every port gets.
void serial_termios_set_line(struct termios& tio, unsigned char mask, SerialDataBitMode dataBit,
                             SerialStopBitMode stopBit, SerialParityMode parity);

struct SerialDevInfo {
    int fd;
    char name[64];
    CSerialBase* owner;  // not owned
    int portId;          // digit after "/dev/ttyAMA" or "/dev/ttyACM", else -1
    // The port's write side; shared with a write under way, so that a port closed meanwhile
    // keeps its write descriptor until that write has ended.
    std::shared_ptr<CSerialPortWriter> writer;
};

class CSerialDevOperate {
public:
    CSerialDevOperate();
    // Ends the reader thread (it finishes its current delivery first), then closes every port.
    ~CSerialDevOperate();

    // Starts the reader thread (once, from the manager's Initialize): 0, or -1 when the thread
    // cannot be created. A second call starts nothing.
    int serial_init();
    // fd, or -1 path already open, -2 open failed, -3 no owner or owner has a port already.
    int serial_open(CSerialBase* owner, std::string path, int flags);
    int serial_close(int fd);
    void serial_close_all();
    bool serial_is_open(int fd);
    int serial_check_open_same(std::string path);
    int serial_check_perip_open(unsigned int mainId, unsigned int subId);
    int serial_set_property(int fd, unsigned char mask, unsigned int speed,
                            SerialDataBitMode dataBit, SerialStopBitMode stopBit,
                            SerialParityMode parity, SerialFlowControlMode flow);
    int serial_set_usb_extern_property(int fd);
    int serial_set_exar_reg(int fd, int block, int reg, int value);
    // 1 when all of `data` went out; from inside a delivery (the reader thread, which never
    // waits there), also when its rest waits for the port. -1 otherwise: see
    // CSerialPortWriter.
    int serial_write(int fd, const char* data, unsigned int length);
    // What the port's writes lost and whether it is stalled; false for a port not open.
    bool serial_write_stats(int fd, SerialWriteStats& stats);
    int serial_cache_data(int fd, const char* data, int length);
    // Delivery to an owner that is being built or taken apart would reach a half-made object:
    // its ports stay out of the reader's select (bytes wait in the kernel) until it is let go.
    // The serial base holds itself while it is constructed; CPeripheralBase::Initialize lets
    // go; the manager holds an instance again before its releaser runs. Any thread.
    void serial_hold_owner(const CSerialBase* owner);
    // Any instance may ask: one that holds no port is no owner here, and nothing happens.
    void serial_release_owner(const CPeripheralBase* owner);
    // An owner going away: closes whatever port it still has (logged) and forgets its hold.
    void serial_forget_owner(const CSerialBase* owner);
    // The reader loop; returns only when the layer is being destroyed. Run it through
    // serial_init, which registers the thread so that the destructor waits for it.
    void serial_read();
    static void* SerialReadThreadEntry(void* arg);
    // Tests stretch the reader's select time-out and idle pause (1 s) to show that a change
    // of the port table never waits for them.
    static void SetReaderTimeoutForTest(int ms);

private:
    // The reader's snapshot of the table: the open ports in ascending order without those
    // resting after a failed read (the wait is cut to the end of the shortest rest), and
    // their select set with the wake pipe.
    void TakeReadSnapshot();
    // One reader pass on the snapshot: select, then serve the lowest ready fd.
    void ReadOnePass();
    // select on the snapshot's ports and the wake pipe (and on the ports whose queued writes
    // wait for room, flushed here): select's answer, -1 on failure.
    int WaitForPorts(fd_set& readSet);
    // Reads `fd` once and delivers what came, under the table lock, unless the table changed.
    void ReadAndDeliver(int fd);
    // serial_cache_data and the bookkeeping of a read, m_TableLock held.
    void CacheDataLocked(int fd, const char* data, int length);
    void NoteReadResultLocked(int fd, int result, int error);
    void NoteSelectFailure(int error);
    // Makes the reader take a fresh snapshot of the table at once. m_TableLock held.
    void WakeReader();
    void WakeSelect();  // the pipe alone: callable with m_ReaderLock held
    std::shared_ptr<CSerialPortWriter> WriterOf(int fd);
    // The write side for a port opened on `path`: the one of a port closed on the same path
    // whose last write is still under way, so that its frames and the new port's take turns;
    // else a new one. m_TableLock held.
    std::shared_ptr<CSerialPortWriter> WriterForPath(int fd, const std::string& path);
    void KeepWaitingWriter(const std::shared_ptr<CSerialPortWriter>& writer);  // reader thread
    // The reader thread's own writes that wait for room: their write descriptors join its
    // select, their deadlines its time-out.
    void AddWriteWaits(fd_set& writeSet, int& top, int& waitMs);
    void FlushWaitingWrites(const fd_set& writeSet);
    // Sleeps up to `ms` unless the layer is being destroyed; false once it is.
    bool ReaderPause(int ms);
    void StopReader();

    std::map<int, SerialDevInfo*> m_mapSerialDev;  // ascending fd order
    pthread_mutex_t m_TableLock;
    int m_nMaxFd;
    // Writers of the table hold m_TableLock and this exclusively; the lock-free lookups
    // (serial_is_open and the calls built on it) hold it shared, so they may run while the
    // reader delivers data under m_TableLock, even from the owner's own handler.
    mutable std::shared_mutex m_TableView;
    // fd -> steady-clock ms of its last failed read; guarded by m_TableLock. Such a port is
    // left out of select for a while, so a hung-up tty cannot keep the reader spinning.
    std::map<int, long long> m_mapFailedRead;
    bool m_bSelectFailed;  // reader thread only: one log per run of select failures
    std::set<const CPeripheralBase*> m_setHeldOwners;  // guarded by m_TableLock
    // Counts the table's changes (ports, holds); guarded by m_TableLock. A descriptor that
    // select reported may have been closed and its number given to another port since: the
    // reader reads only while the table is as its snapshot saw it.
    unsigned long m_nTableGeneration = 0;
    unsigned long m_nSnapshotGeneration = 0;  // reader thread

    std::mutex m_ReaderLock;
    std::condition_variable m_ReaderCond;
    bool m_bReaderStop;
    bool m_bTableChanged;  // the port table changed since the reader's last snapshot
    int m_nReaderCount;    // reader threads started and not yet finished
    int m_nWakePipe[2];    // written by the destructor to end the reader's select at once
    // The reader thread's snapshot of the table, taken again only when the table changed or
    // a port rests after a failed read: a pass then costs no copy of the table.
    std::vector<int> m_vecReadFds;
    fd_set m_ReadSetBase;  // m_vecReadFds and the wake pipe, as select wants them
    int m_nReadWaitMs = 0;
    bool m_bReadSnapshotValid = false;
    // A port whose queue another writer's turn keeps from the reader: that writer drains it
    // before it lets go, so the reader only looks again a little later instead of at once.
    struct WaitingWriter {
        std::shared_ptr<CSerialPortWriter> writer;
        bool busy;
    };
    std::vector<WaitingWriter> m_vecWaitingWriters;                        // reader thread
    std::map<std::string, std::weak_ptr<CSerialPortWriter>> m_mapWriters;  // m_TableLock
    // Set by the reader thread while it delivers (the table lock held); with its thread id,
    // what serial_write asks to know whether it writes from inside a delivery.
    std::atomic<bool> m_bDelivering{false};
    pthread_t m_ReaderThread{};
};

#endif
