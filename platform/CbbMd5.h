// CBB::CbbMd5: MD5 digests of files, as lower-case hex text.
#ifndef PLATFORM_CBBMD5_H_
#define PLATFORM_CBBMD5_H_

#include <string>

namespace CBB {

class CbbMd5 {
public:
    explicit CbbMd5(int mode = 0);
    // Writes the 32-character hex digest of the file into md5 and returns 1;
    // returns 0 and leaves md5 empty when the file cannot be read.
    int Md5File(const std::string& path, std::string& md5);

private:
    int m_nMode;
};

}  // namespace CBB

#endif  // PLATFORM_CBBMD5_H_
