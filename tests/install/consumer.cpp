// A program outside the tree: built against the installed package with
// `pkg-config --cflags --libs kolvvessa` and nothing else.
#include <kolvvessa/kolvvessa.h>

#include <iostream>

int main() {
    std::string strID = KOLVVessaObjectGenerateID(1026);
    std::string strEncoded;
    if (!KOLVVessaEncode(std::string("ab"), strEncoded)) return 1;
    KOLVVessaErrSetEx(1031, "consumer", __LINE__, "%s", "id exists");
    KOLV_VESSA_OBJECT object;
    object.set_id(strID);
    Json::Value jOut(Json::objectValue);
    if (!object.toJson(Json::Value(Json::objectValue), jOut)) return 1;
    std::cout << "version " << KOLVVessaVersionGet() << " code " << KOLVVessaErrCodeGet() << " encoded "
              << strEncoded << " id-length " << jOut["id"].asString().size() << std::endl;
    return strEncoded == "YWI{61}" && KOLVVessaErrCodeGet() == 1031 ? 0 : 1;
}
