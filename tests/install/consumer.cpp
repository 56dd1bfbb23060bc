// A program outside the tree: built against the installed package with
// `pkg-config --cflags --libs kolvvessa` and nothing else.
#include <kolvvessa/kolvvessa.h>

#include <iostream>

int main() {
    std::string strID = KOLVVessaObjectGenerateID(1026);
    std::string strEncoded;
    if (!KOLVVessaEncode(std::string("ab"), strEncoded)) return 1;
    // The version record and its plain accessors.
    KOLV_VESSA_OBJECT_VERSION *pVer = KOLVVessaObjectVersionAlloc();
    unsigned long author = 0;
    if (!pVer || 0 != KOLVVessaObjectVersionItemSetAuthor(pVer, 1101) ||
        0 != KOLVVessaObjectVersionItemGetAuthor(&author, pVer) || 1101 != author)
        return 1;
    KOLVVessaObjectVersionFreeList(pVer);
    // The history and removal entries link; without a request they refuse.
    std::string strVer;
    Json::Value jDiff(Json::objectValue);
    KOLV_VESSA_OBJECT_VERSION *pHead = NULL;
    unsigned int total = 0, listable = 0;
    if (KOLVVessaObjectDelete(NULL) || KOLVVessaObjectFieldRename(NULL, strVer) ||
        KOLVVessaObjectVersionDiff(NULL, jDiff) ||
        0 <= KOLVVessaObjectVersionList((TRABSZHASH *)NULL, &pHead, total, listable))
        return 1;
    KOLVVessaErrSetEx(1031, "consumer", __LINE__, "%s", "id exists");
    KOLV_VESSA_OBJECT object;
    object.set_id(strID);
    Json::Value jOut(Json::objectValue);
    if (!object.toJson(Json::Value(Json::objectValue), jOut)) return 1;
    std::cout << "version " << KOLVVessaVersionGet() << " code " << KOLVVessaErrCodeGet() << " encoded " << strEncoded
              << " id-length " << jOut["id"].asString().size() << std::endl;
    return strEncoded == "YWI{61}" && KOLVVessaErrCodeGet() == 1031 ? 0 : 1;
}
